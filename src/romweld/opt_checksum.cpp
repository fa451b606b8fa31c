// -CK: a checksum or hash over an address range, stored in the image at a
// destination. The parser reads "-CK=start-end" and then lettered controls
// in any order, each at most once; it checks them against the algorithm in
// a fixed order, so a text with several faults always draws the same
// message. The operation scales the addresses by the run's unit, runs the
// engine and keeps the stored result for the log's checksum report.
#include <cctype>
#include <cstdlib>

#include "common/alert.h"
#include "image/hex_errno.h"
#include "image/hexdata_checksum.h"
#include "romweld/args.h"
#include "romweld/drain.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

namespace {

struct given {
  bool has = false;
  uint64_t value = 0;
  int32_t asInt() const { return int32_t(uint32_t(value)); }
};

struct controls {
  given offset, dest, width, algorithm, poly, xorValue, reverse, skipWidth, skipBytes, codeBase;
  bool hasCode = false;
  std::vector<uint8_t> code;
};

// One lettered number: its letter, how it is read, and its complaint when
// given twice.
struct numcontrol {
  char letter;
  given controls::*field;
  unsigned maxBytes;
  int radix;
  const char *what;
  const char *twice;
};

constexpr numcontrol kNumbers[] = {
    {'+', &controls::offset, 8, RADIX_DEFAULT_16, "offset", "can only specify one offset"},
    {'@', &controls::dest, 8, RADIX_DEFAULT_16, "result destination",
     "can only specify one destination address"},
    {'W', &controls::width, 4, RADIX_10, "result width", "can only specify one result width"},
    {'G', &controls::algorithm, 4, RADIX_10, "algorithm", "can only specify one checksum algorithm"},
    {'P', &controls::poly, 8, RADIX_DEFAULT_16, "polynomial", "can only specify one polynomial"},
    {'O', &controls::xorValue, 8, RADIX_DEFAULT_16, "xor value", "can only specify one xor value"},
    {'R', &controls::reverse, 4, RADIX_10, "reverse-word width",
     "can only specify one reverse-word width"},
    {'S', &controls::skipWidth, 4, RADIX_10, "skip-word width",
     "can only specify one skip-word width"},
};

// Reads one number into g; null (message issued) when it fails.
const char *readNumber(romweld_arg *a, const char *p, given *g, unsigned maxBytes, int radix,
                       const char *what) {
  numreq n{a, what, p, maxBytes, radix};
  grammar_number(&n);
  if (n.error)
    return nullptr;
  g->has = true;
  g->value = n.value;
  return n.end;
}

// The controls after the range; false when one failed (message issued).
bool readControls(romweld_arg *a, const char *p, controls *c) {
  while (*p) {
    const char letter = char(std::toupper(static_cast<unsigned char>(*p)));
    if (letter == 'T') {
      if (c->hasCode) {
        arg_error(a, "can only specify one trailing code-sequence");
        return false;
      }
      codereq code{a, "trailing code bytes", p + 1, NIBBLE_FIRST_TRUNCATE, {}};
      grammar_codeString(&code);
      if (code.error)
        return false;
      c->hasCode = true;
      c->code = code.result;
      p = code.end;
      if (*p == '.' && !(p = readNumber(a, p + 1, &c->codeBase, 4, RADIX_10, "code base")))
        return false;
      continue;
    }
    const numcontrol *n = nullptr;
    for (const numcontrol &k : kNumbers)
      if (k.letter == letter)
        n = &k;
    if (!n) {
      arg_error(a, "cannot interpret \"%s\"", p);
      return false;
    }
    given *g = &(c->*n->field);
    if (g->has) {
      arg_error(a, "%s", n->twice);
      return false;
    }
    if (!(p = readNumber(a, p + 1, g, n->maxBytes, n->radix, n->what)))
      return false;
    if (letter == 'S' && *p == '.' &&
        !(p = readNumber(a, p + 1, &c->skipBytes, 4, RADIX_10, "skip bytes")))
      return false;
  }
  return true;
}

// Whether the last setter call reported that the result overlaps the range;
// the list is cleared for the next one.
bool overlapped() {
  const bool yes = hex_errno() == CKSPEC_EOVERLAPS;
  hex_clearErrors();
  return yes;
}

// The algorithm and the result width, the first of the checks made after
// the text is read; false after a message.
bool buildAlgorithm(romweld_arg *a, const controls &c, const rangereq &range, ckspec *s) {
  if (!c.algorithm.has) {
    arg_error(a, "no checksum algorithm specified");
    return false;
  }
  int32_t algorithm = c.algorithm.asInt();
  int64_t width = c.width.asInt();
  if (algorithm == CK_SHA256 && c.width.has) {
    // A hash's width is given in bits and chooses the hash.
    const int64_t bits = std::llabs(width);
    if (bits == 160)
      algorithm = CK_SHA1;
    else if (bits != 256)
      arg_warning(a, "unsupported SHA digest bit-size (%d); defaulting to 256", int(bits));
    width = (width < 0 ? -1 : 1) * int64_t(ckspec_getMaxWidth(algorithm));
  }
  if (!ckspec_create(s, algorithm)) {
    arg_error(a, "unknown/unsupported checksum algorithm (%d)", algorithm);
    return false;
  }
  // A reversed range is not refused here: the record is left without one and
  // the operation reports that it has no data range.
  (void)ckspec_setRange(s, range.startValue, range.endValue);
  if (c.width.has) {
    const int64_t w = std::llabs(width);
    const uint32_t lo = ckspec_getMinWidth(algorithm), hi = ckspec_getMaxWidth(algorithm);
    if (w < lo || w > hi) {
      arg_error(a, "result width for specified algorithm (%d) must be >= %u and <= %u bytes",
                algorithm, lo, hi);
      return false;
    }
    (void)ckspec_setResultWidth(s, uint32_t(w));
    ckspec_setBigEndianResult(s, width > 0);
  }
  return true;
}

// Word reversal and byte skipping; false after a message.
bool buildWordControls(romweld_arg *a, const controls &c, ckspec *s) {
  if (c.reverse.has) {
    if (c.reverse.asInt() < 0) {
      arg_error(a, "reverse-word width must be a positive decimal or zero (disabled)");
      return false;
    }
    ckspec_setRevWordWidth(s, uint32_t(c.reverse.asInt()));
  }
  if (!c.skipWidth.has)
    return true;
  const int32_t sw = c.skipWidth.asInt();
  if (sw != 0 && sw <= 1) {
    arg_error(a, "skip-word width must be greater than 1 or zero (disabled)");
    return false;
  }
  (void)ckspec_setSkipWordWidth(s, uint32_t(sw));
  if (sw == 0)
    return true;
  const int32_t sb = c.skipBytes.has ? c.skipBytes.asInt() : 1;
  if (sb <= 0 || sb >= sw) {
    arg_error(a, "number of bytes for byte skip with hash calculation must be non-zero and "
                 "less than the skip width");
    return false;
  }
  (void)ckspec_setSkipBytes(s, uint32_t(sb));
  return true;
}

// The trailing code and its base; false after a message.
bool buildTrailingCode(romweld_arg *a, const controls &c, ckspec *s) {
  for (uint8_t b : c.code) {
    ckspec_addCodeByte(s, b);
    if (overlapped())
      arg_warning(a, "trailing code bytes cause result to overlap with checksum range");
  }
  const uint32_t base = c.codeBase.has ? uint32_t(c.codeBase.value) : 1;
  const uint32_t w = s->resultWidth;
  if (base > w) {
    arg_error(a,
              "the number of hash bytes to which the trailing code is appended (%u) must be no "
              "greater than the hash width (%u)",
              base, w);
    return false;
  }
  // A code base of 0 would reach the divisibility test first; it is
  // refused for what it is instead.
  if (base == 0) {
    arg_error(a, "the number of bytes appended with trailing code must be > 0");
    return false;
  }
  if (w % base != 0) {
    arg_error(a,
              "the hash width (%d) must be a multiple of the number of hash bytes appended with "
              "a trailing code (%d)",
              int(w), int(base));
    return false;
  }
  (void)ckspec_setCodeBase(s, base);
  hex_clearErrors();
  return true;
}

// The checks after the text is read, in their fixed order.
bool buildSpec(romweld_arg *a, const controls &c, const rangereq &range, ckspec *s) {
  if (!buildAlgorithm(a, c, range, s))
    return false;
  if (!c.dest.has) {
    arg_error(a, "no destination address specified");
    return false;
  }
  hex_clearErrors();
  ckspec_setResultDest(s, c.dest.value);
  if (overlapped())
    arg_warning(a, "checksum result destination (0x%lX) overlaps with checksum range", c.dest.value);
  if (c.poly.has)
    ckspec_setPoly(s, c.poly.value);
  if (c.xorValue.has) {
    ckspec_setXor(s, c.xorValue.value);
    if (!ckspec_isCRC(s->algorithm))
      arg_warning(a, "selected algorithm does not use XOR value");
  }
  if (c.offset.has)
    ckspec_setOffset(s, c.offset.value);
  return buildWordControls(a, c, s) && (!c.hasCode || buildTrailingCode(a, c, s));
}

constexpr drain_row kRows[] = {
    drain_error(ENODATA, "no data range to calculate checksum"),
    drain_error(ECLASH, "checksum conflicts with existing data at address 0x%lX", DF_ADDR),
    drain_error(EPRESERVED,
                "cannot insert checksum at address 0x%lX because existing data is preserved",
                DF_ADDR),
    drain_message<962, DF_ADDR_H, DF_OWNER, DF_ARG>(ECLOBBERED),
    drain_error(EBADPOLY, "polynomial for a CRC checksum must be defined and non-zero"),
    drain_error(EARG, "SHA range is longer than 4 GiB (0x100000000 bytes); refused"),
    drain_error(EBELOWZERO, "the result would run past the top of the address space"),
    drain_budget(EBUDGET,
                 "the result would add %lu rows of 256 addresses to the image, " DRAIN_BUDGET_LIMIT,
                 DF_ROWS),
};

} // namespace

int parseCHECKSUM(romweld_arg *a) {
  int result;
  bool plus = false;
  const char *p = arg_open(a, "-ck", ARGT_CHECKSUM, doCHECKSUM, PLUS_TAKEN, &result, &plus);
  if (!p)
    return result;
  ck_arg &ck = arg_newSpec<ck_arg>(a);
  rangereq range{a, p, RADIX_16};
  grammar_range(&range);
  if (range.error)
    return MATCH_ERROR;
  controls c;
  if (!readControls(a, range.end, &c) || hex_errno() != EOK)
    return MATCH_ERROR;
  if (!buildSpec(a, c, range, &ck.spec)) {
    hex_clearErrors();
    return MATCH_ERROR;
  }
  store_setClobber(&ck.spec.policy, plus);
  store_setOwner(&ck.spec.policy, a);
  return MATCH_OK;
}

namespace {

// The undefined bytes of a checksum's range, recorded first, during the
// walk, and reported as one warning after the other records' messages.
struct undefined_bytes {
  bool any = false;
  hex_error first{};
  uint64_t lo = 0, hi = 0;
};

undefined_bytes takeUndefined() {
  undefined_bytes u;
  while (hex_errorCount() > 0 && hex_errorAt(0).code == EUNDEFADDR) {
    const hex_error e = hex_popError();
    if (!u.any)
      u.first = e;
    u.lo = u.any ? std::min(u.lo, e.addr) : e.addr;
    u.hi = u.any ? std::max(u.hi, e.addr) : e.addr;
    u.any = true;
  }
  return u;
}

void warnUndefined(romweld_arg *a, const undefined_bytes &u) {
  if (!u.any)
    return;
  const std::string assumed =
      u.first.flag ? "skipping" : alert_format("assuming 0x%X", unsigned(uint8_t(u.first.ch)));
  arg_warning(a, "range includes undefined addresses from 0x%lX to 0x%lX, %s", u.lo, u.hi,
              assumed.c_str());
}

} // namespace

bool doCHECKSUM(romweld_arg *a) {
  ck_arg *ck = std::get_if<ck_arg>(&a->spec);
  ROMWELD_ASSERT(ck != nullptr && romweld.hex != nullptr);
  ckspec s = ck->spec;
  hex_clearErrors();
  uint64_t dest = 0;
  if (!units_toBytes(a, "result destination", UNITS_START, s.resultDest, &dest))
    return false;
  ckspec_setResultDest(&s, dest);
  // An overlap was warned about when parsing.
  if (!units_rangeToBytes(a, ck->spec.range, &s.range))
    return false;
  hex_clearErrors();
  // Intended: the Fletcher-8 count is taken in 32 bits, so a range of a
  // multiple of 4 GiB counts no byte and the sum keeps its starting value.
  if (s.algorithm == CK_FLETCHER8 && s.range.hasStart &&
      uint32_t(s.range.end - s.range.start + 1) == 0)
    arg_warning(a, "range is too long for the Fletcher-8 count; the sum covers none of it");

  std::vector<uint8_t> result;
  const bool computed = hex_checksum(ihex_getImage(romweld.hex), &s, &result);
  const undefined_bytes undefined = takeUndefined();
  const bool clean = drain_errors(kRows, drain_ctx{a});
  warnUndefined(a, undefined);
  hex_clearErrors();

  if (result.size() == s.resultWidth) {
    ck->computed = true;
    ck->start = s.range.start;
    ck->end = s.range.end;
    ck->dest = dest;
    ck->result = std::move(result);
  }
  return computed && clean;
}

trail_cells trailCellsCHECKSUM(const romweld_arg *a) {
  const ck_arg &c = arg_spec<ck_arg>(a);
  if (!c.computed)
    return {};
  return {c.dest, ckspec_trailLayout(&c.spec)};
}

std::vector<uint8_t> valueCHECKSUM(const romweld_arg *a) {
  const ck_arg &c = arg_spec<ck_arg>(a);
  // A number stored least significant byte first, and a digest stored
  // reversed, read backwards.
  const bool digest = c.spec.algorithm == CK_SHA1 || c.spec.algorithm == CK_SHA256;
  return c.spec.bigEndianResult != digest ? c.result
                                          : std::vector<uint8_t>(c.result.rbegin(), c.result.rend());
}
