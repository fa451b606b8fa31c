// -SERIAL, -STRING and -STRPACK: fixed data at fixed addresses. A serial is
// a code sequence, optionally repeated at an interval and counted up or
// down from copy to copy; a string is stored as one copy of its bytes. The
// store refuses to change existing data unless the option has the '+'
// prefix, and never changes preserved data.
#include <cinttypes>
#include <cstdint>

#include "image/hex_errno.h"
#include "image/hexdata_serial.h"
#include "romweld/args.h"
#include "romweld/drain.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

namespace {

constexpr drain_row kClobbered = drain_message<962, DF_ADDR_H, DF_OWNER, DF_ARG>(ECLOBBERED);
// Serial and string data go through one store, so an address outside the
// space is refused the same way for both.
constexpr drain_row kBelowZero = drain_error(EBELOWZERO, "would program at addresses below zero");

constexpr drain_row kSerialRows[] = {
    drain_error(ECLASH, "serial data conflicts with existing data at address 0x%lX", DF_ADDR),
    drain_error(EPRESERVED,
                "cannot insert serial data at address 0x%lX because existing data is preserved",
                DF_ADDR),
    kClobbered,
    kBelowZero,
    drain_error(EOVERLAPS, "would program overlapping data"),
    drain_count(EMEMORY),
};

constexpr drain_row kStringRows[] = {
    drain_error(ECLASH, "string data conflicts with existing data at address 0x%lX", DF_ADDR),
    drain_error(EPRESERVED,
                "cannot insert string data at address 0x%lX because existing data is preserved",
                DF_ADDR),
    kClobbered,
    kBelowZero,
    drain_count(EMEMORY),
};

// A number at p, or false (the helper has complained).
bool readNumber(const romweld_arg *a, const char *what, const char *&p, unsigned maxBytes,
                int radix, uint64_t *value) {
  numreq r{a, what, p, maxBytes, radix};
  grammar_number(&r);
  if (r.error)
    return false;
  *value = r.value;
  p = r.end;
  return true;
}

bool readCode(const romweld_arg *a, const char *what, const char *&p, std::vector<uint8_t> *bytes) {
  codereq r{a, what, p, NIBBLE_FIRST_PAD_ZERO, {}};
  grammar_codeString(&r);
  if (r.error)
    return false;
  *bytes = std::move(r.result);
  p = r.end;
  return true;
}

// A signed 32-bit field read from its sign on: "-1" and "+FFFFFFFF" are
// both -1.
int32_t asInt32(uint64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

hexdata *runImage() { return ihex_getImage(romweld.hex); }

} // namespace

int parseSERIAL(romweld_arg *a) {
  bool plus = false;
  const char *p = arg_matchWord(a, "-serial", &plus);
  if (!p)
    return MATCH_NONE;
  a->id = ARGT_SERIAL;
  a->op = doSERIAL;
  if (*p++ != '=') {
    arg_error(a, "malformed option");
    return MATCH_ERROR;
  }
  serialspec &s = arg_newSpec<serial_arg>(a).spec;
  serialspec_setClobber(&s, plus);

  std::vector<uint8_t> code;
  if (!readCode(a, "code-sequence", p, &code))
    return MATCH_ERROR;
  serialspec_appendCode(&s, code.data(), code.size());

  uint64_t v = 0;
  if (*p == '+' || *p == '-') {
    if (!readNumber(a, "code-sequence inc/decrement", p, 4, RADIX_DEFAULT_16, &v))
      return MATCH_ERROR;
    serialspec_setCodeInc(&s, asInt32(v));
  }
  if (*p++ != '@') {
    arg_error(a, "no storage address has been specified");
    return MATCH_ERROR;
  }
  if (!readNumber(a, "storage address", p, 8, RADIX_DEFAULT_16, &v))
    return MATCH_ERROR;
  serialspec_setStart(&s, v);
  if (*p == '+' || *p == '-') {
    if (!readNumber(a, "address-interval", p, 4, RADIX_DEFAULT_16, &v))
      return MATCH_ERROR;
    serialspec_setAddrInc(&s, asInt32(v));
  }
  if (*p == 'r' || *p == 'R') {
    ++p;
    if (!readNumber(a, "repetitions", p, 4, RADIX_DEFAULT_10, &v))
      return MATCH_ERROR;
    if (!serialspec_setRepts(&s, static_cast<uint32_t>(v))) {
      arg_error(a, "repititions must be > 0");
      return MATCH_ERROR;
    }
  }
  if (*p) {
    arg_error(a, "garbage (\"%s\") at the end of option", p);
    return MATCH_ERROR;
  }
  serialspec_setOwner(&s, a);
  return MATCH_OK;
}

bool doSERIAL(romweld_arg *a) {
  serialspec s = arg_spec<serial_arg>(a).spec;
  hex_clearErrors();
  if (!units_toBytes(a, "storage address", UNITS_START, s.start, &s.start))
    return false;
  // The interval keeps its 32-bit field; a scaled interval that would not
  // fit it is refused rather than cut to another distance.
  int64_t interval = 0;
  if (!units_scaleOffset(s.addrInc, romweld.addressing, &interval) ||
      interval != static_cast<int32_t>(interval)) {
    arg_error(a, "%s (%" PRId64 ") in units of %u bytes lies beyond the address space",
              "address-interval", static_cast<int64_t>(s.addrInc), romweld.addressing);
    return false;
  }
  s.addrInc = static_cast<int32_t>(interval);

  const bool stored = hex_serial(runImage(), &s);
  const bool clean = drain_errors(kSerialRows, drain_ctx{a});
  hex_clearErrors();
  if (!stored)
    return false;
  // The stored copies lie inside the address space (hex_serial checked), so
  // these sums are exact. An interval of 0 puts the copies one code length
  // apart, yet the span covers the first copy only: intended.
  const uint64_t n = s.codeBytes.size();
  const uint64_t travel = uint64_t(s.addrInc < 0 ? -int64_t(s.addrInc) : s.addrInc) *
                          (s.repetitions - 1);
  if (s.addrInc < 0)
    romweld_widenSpan(s.start - travel, s.start + n - 1);
  else
    romweld_widenSpan(s.start, s.start + n - 1 + travel);
  return clean;
}

int parseSTRING(romweld_arg *a) {
  bool plus = false;
  bool packed = true;
  const char *p = arg_matchWord(a, "-strpack", &plus);
  if (!p) {
    packed = false;
    p = arg_matchWord(a, "-string", &plus);
  }
  if (!p)
    return MATCH_NONE;
  a->id = packed ? ARGT_STRPACK : ARGT_STRING;
  a->op = doSTRING;
  stringspec &s = arg_newSpec<string_arg>(a).spec;
  stringspec_setClobber(&s, plus);
  (void)stringspec_setPacked(&s, packed); // no trailing code yet

  if (*p++ != '@') {
    arg_error(a, "unable to determine the address to store the string");
    return MATCH_ERROR;
  }
  uint64_t v = 0;
  if (!readNumber(a, "string address", p, 8, RADIX_DEFAULT_16, &v))
    return MATCH_ERROR;
  stringspec_setStart(&s, v);
  if (*p == 't' || *p == 'T') {
    ++p;
    if (packed) {
      arg_error(a, "packed strings cannot have trailing code-bytes");
      return MATCH_ERROR;
    }
    std::vector<uint8_t> code;
    if (!readCode(a, "trailing code bytes", p, &code))
      return MATCH_ERROR;
    (void)stringspec_appendCode(&s, code.data(), code.size()); // not packed
  }
  if (*p++ != '=') {
    arg_error(a, "unable to determine the string");
    return MATCH_ERROR;
  }
  // The text as it stands: the shell or the command file has already
  // removed any quoting.
  (void)stringspec_setString(&s, p);
  stringspec_setOwner(&s, a);
  return MATCH_OK;
}

bool doSTRING(romweld_arg *a) {
  stringspec s = arg_spec<string_arg>(a).spec;
  hex_clearErrors();
  if (!units_toBytes(a, "string address", UNITS_START, s.start, &s.start))
    return false;
  const bool stored = hex_string(runImage(), &s);
  const bool clean = drain_errors(kStringRows, drain_ctx{a});
  hex_clearErrors();
  if (!stored)
    return false;
  romweld_widenSpan(s.start, s.start + stringspec_getLength(&s) - 1);
  return clean;
}
