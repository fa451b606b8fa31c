// -SERIAL: a code sequence at a fixed address, optionally repeated at an
// interval and counted up or down from copy to copy. The store refuses to
// change existing data unless the option has the '+' prefix, and never
// changes preserved data.
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

constexpr drain_row kSerialRows[] = {
    drain_error(ECLASH, "serial data conflicts with existing data at address 0x%lX", DF_ADDR),
    drain_error(EPRESERVED,
                "cannot insert serial data at address 0x%lX because existing data is preserved",
                DF_ADDR),
    drain_message<962, DF_ADDR_H, DF_OWNER, DF_ARG>(ECLOBBERED),
    // An address past the top would wrap round to the bottom: refused the
    // same way, as strings are.
    drain_error(EBELOWZERO, "would program at addresses below zero"),
    drain_error(EOVERLAPS, "would program overlapping data"),
    drain_budget(EBUDGET,
                 "%u copies would add %lu rows of 256 addresses to the image, " DRAIN_BUDGET_LIMIT,
                 DF_NUM, DF_ROWS),
};

// A signed 32-bit field read from its sign on: "-1" and "+FFFFFFFF" are
// both -1.
int32_t asInt32(uint64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

} // namespace

int parseSERIAL(romweld_arg *a) {
  int result;
  bool plus = false;
  const char *p = arg_open(a, "-serial", ARGT_SERIAL, doSERIAL, PLUS_TAKEN, &result, &plus);
  if (!p)
    return result;
  serialspec &s = arg_newSpec<serial_arg>(a).spec;
  store_setClobber(&s.policy, plus);

  std::vector<uint8_t> code;
  if (!grammar_takeCode(a, "code-sequence", p, NIBBLE_FIRST_PAD_ZERO, &code))
    return MATCH_ERROR;
  serialspec_appendCode(&s, code.data(), code.size());

  uint64_t v = 0;
  if (*p == '+' || *p == '-') {
    if (!grammar_take(a, "code-sequence inc/decrement", p, 4, RADIX_DEFAULT_16, &v))
      return MATCH_ERROR;
    serialspec_setCodeInc(&s, asInt32(v));
  }
  if (*p++ != '@') {
    arg_error(a, "no storage address has been specified");
    return MATCH_ERROR;
  }
  if (!grammar_take(a, "storage address", p, 8, RADIX_DEFAULT_16, &v))
    return MATCH_ERROR;
  serialspec_setStart(&s, v);
  if (*p == '+' || *p == '-') {
    if (!grammar_take(a, "address-interval", p, 4, RADIX_DEFAULT_16, &v))
      return MATCH_ERROR;
    serialspec_setAddrInc(&s, asInt32(v));
  }
  if (*p == 'r' || *p == 'R') {
    ++p;
    if (!grammar_take(a, "repetitions", p, 4, RADIX_DEFAULT_10, &v))
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
  store_setOwner(&s.policy, a);
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

  const bool stored = hex_serial(ihex_getImage(romweld.hex), &s);
  const bool clean = drain_errors(kSerialRows, drain_ctx{a});
  hex_clearErrors();
  return stored && clean;
}
