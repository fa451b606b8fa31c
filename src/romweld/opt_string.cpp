// -STRING and -STRPACK: a string and its NUL at a fixed address, as bytes
// (each optionally followed by trailing code) or packed two 7-bit
// characters to a 14-bit word. The store refuses to change existing data
// unless the option has the '+' prefix, and never changes preserved data.
#include <cstdint>

#include "image/hex_errno.h"
#include "image/hexdata_string.h"
#include "romweld/args.h"
#include "romweld/drain.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

namespace {

constexpr drain_row kStringRows[] = {
    drain_error(ECLASH, "string data conflicts with existing data at address 0x%lX", DF_ADDR),
    drain_error(EPRESERVED,
                "cannot insert string data at address 0x%lX because existing data is preserved",
                DF_ADDR),
    drain_message<962, DF_ADDR_H, DF_OWNER, DF_ARG>(ECLOBBERED),
    // An address past the top would wrap round to the bottom: refused the
    // same way, as serials are.
    drain_error(EBELOWZERO, "would program at addresses below zero"),
    drain_budget(EBUDGET,
                 "the string would add %lu rows of 256 addresses to the image, " DRAIN_BUDGET_LIMIT,
                 DF_ROWS),
};

} // namespace

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
  store_setClobber(&s.policy, plus);
  (void)stringspec_setPacked(&s, packed); // no trailing code yet

  if (*p++ != '@') {
    arg_error(a, "unable to determine the address to store the string");
    return MATCH_ERROR;
  }
  uint64_t v = 0;
  if (!grammar_take(a, "string address", p, 8, RADIX_DEFAULT_16, &v))
    return MATCH_ERROR;
  stringspec_setStart(&s, v);
  if (*p == 't' || *p == 'T') {
    ++p;
    if (packed) {
      arg_error(a, "packed strings cannot have trailing code-bytes");
      return MATCH_ERROR;
    }
    std::vector<uint8_t> code;
    if (!grammar_takeCode(a, "trailing code bytes", p, NIBBLE_FIRST_PAD_ZERO, &code))
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
  store_setOwner(&s.policy, a);
  return MATCH_OK;
}

bool doSTRING(romweld_arg *a) {
  stringspec s = arg_spec<string_arg>(a).spec;
  hex_clearErrors();
  if (!units_toBytes(a, "string address", UNITS_START, s.start, &s.start))
    return false;
  const bool stored = hex_string(ihex_getImage(romweld.hex), &s);
  const bool clean = drain_errors(kStringRows, drain_ctx{a});
  hex_clearErrors();
  return stored && clean;
}

trail_cells trailCellsSTRING(const romweld_arg *a) {
  const stringspec &s = arg_spec<string_arg>(a).spec;
  trail_cells t{0, stringspec_trailLayout(&s)};
  // The start as the run scaled it; a start it refused stored nothing.
  if (!units_scale(UNITS_START, s.start, romweld.addressing, &t.base))
    return {};
  return t;
}
