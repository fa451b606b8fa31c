#include "romweld/units.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>

namespace {

constexpr uint64_t TOP = UINT64_MAX;

TEST(Units, AddressesScaleOrRefuse) {
  // Kind, value, unit, whether it fits, the value in bytes.
  const std::tuple<units_kind, uint64_t, uint32_t, bool, uint64_t> rows[] = {
      {UNITS_START, 0x10, 0, true, 0x10}, // unit 0 means bytes
      {UNITS_START, TOP, 1, true, TOP},
      {UNITS_START, 0x1FFFFFFFFFFFFFFF, 8, true, 0xFFFFFFFFFFFFFFF8},
      {UNITS_START, 0x2000000000000000, 8, false, 0},
      {UNITS_START, 0x8000000000000000, 2, false, 0},
      {UNITS_END, 0, 8, true, 7},
      {UNITS_END, 0xFF, 2, true, 0x1FF},
      {UNITS_END, TOP, 0, true, TOP},
      {UNITS_END, TOP, 1, true, TOP},
      {UNITS_END, 0x7FFFFFFFFFFFFFFF, 2, true, TOP},
      {UNITS_END, 0x8000000000000000, 2, false, 0},
      {UNITS_END, 0x1FFFFFFFFFFFFFFF, 8, true, TOP},
      // A unit that would run past the top is refused as a whole.
      {UNITS_END, 0x5555555555555554, 3, true, 0xFFFFFFFFFFFFFFFE},
      {UNITS_END, 0x5555555555555555, 3, false, 0},
      {UNITS_INTERVAL, 3, 8, true, 24},
      {UNITS_INTERVAL, 0x2000000000000000, 8, false, 0},
  };
  for (auto [kind, value, unit, fits, want] : rows) {
    SCOPED_TRACE(testing::Message() << kind << " 0x" << std::hex << value << " unit " << unit);
    uint64_t bytes = 0xDEAD;
    EXPECT_EQ(units_scale(kind, value, unit, &bytes), fits);
    EXPECT_EQ(bytes, fits ? want : 0xDEAD) << "a refused value leaves the result alone";
  }
}

} // namespace
