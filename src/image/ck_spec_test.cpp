// The record's overlap rule, which the command line reaches only behind the
// parser's own checks.
#include "image/ck_spec.h"

#include <gtest/gtest.h>

#include <tuple>

#include "image/testutil.h"

namespace {

using testutil::errors;

// Only the first and last stored byte are tested, so a result spanning the
// whole range passes; an overlap is recorded but the value is kept.
TEST(CkSpec, OverlapIsRecordedAndStored) {
  // Range, result address, trailing code or not, overlap recorded.
  const std::tuple<uint64_t, uint64_t, uint64_t, bool, bool> rows[] = {
      {0x10, 0x1F, 0x20, false, false}, {0x10, 0x1F, 0x1F, false, true},
      {0x10, 0x1F, 0x0E, false, true},  {0x10, 0x1F, 0x0D, false, false},
      {0x10, 0x1F, 0x0C, true, true},   {0x11, 0x11, 0x10, false, false},
  };
  for (auto [start, end, dest, code, overlaps] : rows) {
    ckspec s;
    ASSERT_TRUE(ckspec_create(&s, 1) && ckspec_setResultWidth(&s, 3));
    if (code)
      ckspec_addCodeByte(&s, 0xAA); // 3 + 3 bytes
    ASSERT_TRUE(ckspec_setRange(&s, start, end));
    hex_clearErrors();
    EXPECT_TRUE(ckspec_setResultDest(&s, dest));
    EXPECT_EQ(errors(), overlaps ? "EOVERLAPS" : "") << dest;
    EXPECT_EQ(s.resultDest, dest);
  }
}

} // namespace
