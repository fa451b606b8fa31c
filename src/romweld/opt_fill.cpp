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
    drain_budget(EBUDGET,
                 "the fill would add %lu rows of 256 addresses to the image, " DRAIN_BUDGET_LIMIT,
                 DF_ROWS),
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
                f->width);
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
  if (f->values.size() > 1) {
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
  const bool ok = fillspec_setIncrement(f, static_cast<int32_t>(inc));
  ROMWELD_ASSERT(ok);
  return n.end;
}

// "wN:" when given; the text after it, or null after a message.
const char *parseWidth(romweld_arg *a, fillspec *f, const char *p) {
  if (*p != 'w' && *p != 'W')
    return p;
  numreq n{a, "word-width", p + 1, 4, RADIX_10};
  grammar_number(&n);
  if (n.error)
    return nullptr;
  if (n.value < 1 || n.value > 8) {
    arg_error(a, "word-width must be a decimal <= %u and >= %u", 8u, 1u);
    return nullptr;
  }
  const bool ok = fillspec_setWidth(f, static_cast<uint32_t>(n.value));
  ROMWELD_ASSERT(ok);
  if (*n.end != ':') {
    arg_error(a, "cannot find the start of the fill expressions");
    return nullptr;
  }
  return n.end + 1;
}

} // namespace

int parseFILL(romweld_arg *a) {
  int result;
  const char *p = arg_open(a, "-fill", ARGT_FILL, doFILL, PLUS_IGNORED, &result);
  if (!p)
    return result;
  fillspec *f = &arg_newSpec<fill_arg>(a).spec;
  if (!(p = parseWidth(a, f, p)) || !(p = parseValues(a, f, p)))
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
  (void)range_setStart(&f->range, start.value);
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
    (void)range_setEnd(&f->range, end.value);
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
  store_setOwner(&f->policy, a);
  return MATCH_OK;
}

bool doFILL(romweld_arg *a) {
  const fillspec &typed = arg_spec<fill_arg>(a).spec;
  hex_clearErrors();
  // The record in byte addresses. "@address" alone fills that one address
  // (all of its unit); ",data" without an end leaves the end unset.
  fillspec f = typed;
  addr_range units = typed.range;
  if (!units.hasEnd && typed.mode == FILL_UNUSED)
    (void)range_setEnd(&units, units.start);
  if (!units_rangeToBytes(a, units, &f.range))
    return false;
  const bool ok = fillspec_setRowLength(&f, romweld.output.maxLength ? romweld.output.maxLength : 16);
  ROMWELD_ASSERT(ok);

  // Intended: the range is checked against the width of one constant, not
  // the length of the whole pattern; an unset end counts as 0.
  const uint64_t end = f.range.hasEnd ? f.range.end : 0;
  if (f.range.hasEnd || f.mode != FILL_UNUSED) {
    const uint64_t span = end + 1 - f.range.start;
    if (span % f.width != 0)
      arg_warning(a, "fill range is not a multiple of the fill width, final fill value will be "
                     "truncated");
  }

  const bool filled = hex_fill(ihex_getImage(romweld.hex), &f);
  const bool clean = drain_errors(kFillRows, drain_ctx{a});
  // The log maps the range given; ",data" without an end, what it walked.
  const fill_walk walk = hex_fillWalk(&f);
  if (f.range.hasEnd)
    romweld_widenExtents(f.range.start, f.range.end);
  else if (walk.lo <= walk.hi)
    romweld_widenExtents(walk.lo, walk.hi);
  return filled && clean;
}
