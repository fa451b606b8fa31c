#include "romweld/units.h"

#include "romweld/args.h"
#include "romweld/grammar.h"
#include "romweld/settings.h"

namespace {

uint32_t effective(uint32_t unit) { return unit == 0 ? 1 : unit; }

} // namespace

bool units_scale(units_kind kind, uint64_t value, uint32_t unit, uint64_t *bytes) {
  ROMWELD_ASSERT(unit <= MAX_ARG_BYTES);
  const uint64_t u = effective(unit);
  uint64_t scaled;
  if (__builtin_mul_overflow(value, u, &scaled))
    return false;
  // The end's unit must lie wholly inside the address space, so the top
  // address is reachable only through a unit that ends there.
  if (kind == UNITS_END && __builtin_add_overflow(scaled, u - 1, &scaled))
    return false;
  *bytes = scaled;
  return true;
}

bool units_scaleOffset(int64_t value, uint32_t unit, int64_t *bytes) {
  ROMWELD_ASSERT(unit <= MAX_ARG_BYTES);
  int64_t scaled;
  if (__builtin_mul_overflow(value, static_cast<int64_t>(effective(unit)), &scaled))
    return false;
  *bytes = scaled;
  return true;
}

bool units_toBytes(const romweld_arg *a, const char *what, units_kind kind, uint64_t value,
                   uint64_t *bytes) {
  if (units_scale(kind, value, romweld.addressing, bytes))
    return true;
  arg_error(a, "%s (0x%lX) in units of %u bytes lies beyond the address space", what, value,
            romweld.addressing);
  return false;
}

bool units_offsetToBytes(const romweld_arg *a, const char *what, int64_t value, int64_t *bytes) {
  if (units_scaleOffset(value, romweld.addressing, bytes))
    return true;
  arg_error(a, "%s (%ld) in units of %u bytes lies beyond the address space", what, value,
            romweld.addressing);
  return false;
}

bool units_rangeToBytes(const romweld_arg *a, const addr_range &units, addr_range *bytes) {
  const addr_range in = units; // bytes may be units itself
  *bytes = in;
  return (!in.hasStart || units_toBytes(a, "start address", UNITS_START, in.start, &bytes->start)) &&
         (!in.hasEnd || units_toBytes(a, "end address", UNITS_END, in.end, &bytes->end));
}
