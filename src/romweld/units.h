// Address units: addresses on the command line are in units of the
// -ADDRESSING setting (1 to 8 bytes; 0 and 1 both mean bytes). Parsers keep
// them as typed; each operation turns them into byte addresses here, once,
// with the unit in force when it runs. A value that does not fit the 64-bit
// address space after scaling is refused, never wrapped.
#pragma once

#include <cstdint>

#include "image/record.h"

struct romweld_arg;

enum units_kind {
  UNITS_START,    // first byte of the unit: value × unit
  UNITS_END,      // last byte of the unit: (value + 1) × unit − 1
  UNITS_INTERVAL, // a distance: value × unit
};

// The conversion alone: false when the result does not fit 64 bits.
[[nodiscard]] bool units_scale(units_kind kind, uint64_t value, uint32_t unit, uint64_t *bytes);
[[nodiscard]] bool units_scaleOffset(int64_t value, uint32_t unit, int64_t *bytes);

// With the run's unit (romweld.addressing). When the result does not fit,
// argument error naming `what` and the value as typed, and false.
[[nodiscard]] bool units_toBytes(const romweld_arg *a, const char *what, units_kind kind,
                                 uint64_t value, uint64_t *bytes);
[[nodiscard]] bool units_offsetToBytes(const romweld_arg *a, const char *what, int64_t value,
                                       int64_t *bytes);
// Both ends of a range that are present: the start as UNITS_START, the end
// as UNITS_END, named "start address" and "end address" when refused.
[[nodiscard]] bool units_rangeToBytes(const romweld_arg *a, const addr_range &units,
                                      addr_range *bytes);
