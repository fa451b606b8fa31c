// -FILL=[wN:]fill_expr@address[:end_address][,data]: fills addresses that
// hold no data with constants, a list of constants or a counting constant.
// The parser keeps the addresses as typed; doFILL turns them into bytes with
// the run's unit, takes the row length of ",data" from the output format,
// and runs the fill engine on the run's image.
#include <cinttypes>

#include "common/alert.h"
#include "image/hex_errno.h"
#include "image/hexdata_fill.h"
#include "romweld/args.h"
#include "romweld/drain.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

#include <strings.h>

namespace {

// A fill of unused addresses cannot clash; the codes stay for fills that
// overwrite.
constexpr drain_row kFillRows[] = {
    drain_error(ECLASH, "fill-data conflicts with existing data at address 0x%lX", DF_ADDR),
    drain_error(EPRESERVED,
                "cannot insert fill-data at address 0x%lX because existing data is preserved",
                DF_ADDR),
};

// The constants, up to the character that ends them ('@', '+' or '-').
const char *parseValues(romweld_arg *a, fillspec *f, const char *p) {
  for (;;) {
    numreq n{a, "fill-constant", p, 8, RADIX_DEFAULT_16};
    grammar_number(&n);
    if (n.error)
      return nullptr;
    hex_clearErrors();
    if (!fillspec_addValue(f, n.value)) {
      ROMWELD_ASSERT(hex_errno() == EWIDEVALUE);
      arg_error(a, "fill-constant (0x%lX) is larger than specified width (%u bytes)", n.value,
                fillspec_getWidth(f));
      return nullptr;
    }
    p = n.end;
    switch (*p) {
    case ',':
      ++p;
      break;
    case '@':
    case '+':
    case '-':
      return p;
    case '\0':
      arg_error(a, "cannot determine start address");
      return nullptr;
    default:
      arg_error(a, "unexpected character ('%c') in option", *p);
      return nullptr;
    }
  }
}

// "+=" or "-=" and the amount; the text after it.
const char *parseIncrement(romweld_arg *a, fillspec *f, const char *p) {
  const bool down = *p == '-';
  if (p[1] != '=') {
    arg_error(a, "an increment is specified with += or -=");
    return nullptr;
  }
  if (fillspec_countValues(f) > 1) {
    arg_error(a, "and inc/decrement cannot be applied to series of fill-constants");
    return nullptr;
  }
  numreq n{a, "inc/decrement", p + 2, 4, RADIX_DEFAULT_10};
  grammar_number(&n);
  if (n.error)
    return nullptr;
  uint32_t inc = static_cast<uint32_t>(n.value);
  if (down)
    inc = 0u - inc;
  const int ok = fillspec_setIncrement(f, static_cast<int32_t>(inc));
  ROMWELD_ASSERT(ok);
  return n.end;
}

} // namespace

int parseFILL(romweld_arg *a) {
  bool plus = false;
  const char *p = arg_matchWord(a, "-fill", &plus);
  if (!p)
    return MATCH_NONE;
  a->id = ARGT_FILL;
  if (*p != '=') {
    arg_error(a, "malformed option");
    return MATCH_ERROR;
  }
  ++p;
  if (plus)
    arg_warning(a, "'+' prefix is not supported by -fill");
  a->op = doFILL;
  fillspec *f = &arg_newSpec<fill_arg>(a).spec;

  if (*p == 'w' || *p == 'W') {
    numreq n{a, "word-width", p + 1, 4, RADIX_10};
    grammar_number(&n);
    if (n.error)
      return MATCH_ERROR;
    if (n.value < 1 || n.value > 8) {
      arg_error(a, "word-width must be a decimal <= %u and >= %u", 8u, 1u);
      return MATCH_ERROR;
    }
    const int ok = fillspec_setWidth(f, static_cast<uint32_t>(n.value));
    ROMWELD_ASSERT(ok);
    p = n.end;
    if (*p != ':') {
      arg_error(a, "cannot find the start of the fill expressions");
      return MATCH_ERROR;
    }
    ++p;
  }

  if (!(p = parseValues(a, f, p)))
    return MATCH_ERROR;
  if (*p != '@') {
    if (!(p = parseIncrement(a, f, p)))
      return MATCH_ERROR;
    if (*p != '@') {
      arg_error(a, "cannot determine start address");
      return MATCH_ERROR;
    }
  }

  // Addresses stay in address units as typed: doFILL converts them with
  // the unit -ADDRESSING sets when the run is processed.
  numreq start{a, "start address", p + 1, 8, RADIX_DEFAULT_10};
  grammar_number(&start);
  if (start.error)
    return MATCH_ERROR;
  hex_clearErrors();
  (void)fillspec_setStart(f, start.value);
  p = start.end;
  if (*p == ':') {
    numreq end{a, "end address", p + 1, 8, RADIX_DEFAULT_10};
    grammar_number(&end);
    if (end.error)
      return MATCH_ERROR;
    if (end.value < start.value) {
      arg_error(a, "and address must be >= start address"); // intended wording
      return MATCH_ERROR;
    }
    (void)fillspec_setEnd(f, end.value);
    p = end.end;
  }
  (void)fillspec_setMode(f, FILL_UNUSED);
  if (strcasecmp(p, ",data") == 0) {
    (void)fillspec_setMode(f, FILL_DATA_ROWS);
    p += 5;
  }
  if (*p) {
    arg_error(a, "garbage (\"%s\") at the end of option", p);
    return MATCH_ERROR;
  }
  fillspec_setOwner(f, a);
  return MATCH_OK;
}

bool doFILL(romweld_arg *a) {
  const fillspec &typed = arg_spec<fill_arg>(a).spec;
  hex_clearErrors();
  // The record in byte addresses. "@address" alone fills that one address
  // (all of its unit); ",data" without an end leaves the end unset.
  fillspec f = typed;
  if (!units_toBytes(a, "start address", UNITS_START, typed.start, &f.start))
    return false;
  if (typed.hasEnd || typed.mode == FILL_UNUSED) {
    const uint64_t end = typed.hasEnd ? typed.end : typed.start;
    if (!units_toBytes(a, "end address", UNITS_END, end, &f.end))
      return false;
    f.hasEnd = true;
  }
  const int ok = fillspec_setRowLength(&f, romweld.output.maxLength ? romweld.output.maxLength : 16);
  ROMWELD_ASSERT(ok);

  // Intended: the range is checked against the width of one constant, not
  // the length of the whole pattern; an unset end counts as 0.
  if (f.hasEnd || f.mode != FILL_UNUSED) {
    const uint64_t span = fillspec_getEnd(&f) + 1 - f.start;
    if (span % f.width != 0)
      arg_warning(a, "fill range is not a multiple of the fill width, final fill value will be "
                     "truncated");
  }

  const bool filled = hex_fill(ihex_getImage(romweld.hex), &f);
  // The budget check refuses before anything is written: the fill cannot
  // be held, which ends the run like any exhausted allocation.
  if (!filled && hex_errno() == EMEMORY)
    alert_outOfMemory();
  const bool clean = drain_errors(kFillRows, drain_ctx{a});
  romweld_widenSpan(f.start, fillspec_getEnd(&f));
  romweld_widenExtents(f.start, fillspec_getEnd(&f));
  return filled && clean;
}
