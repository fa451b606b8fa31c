// The record's refusals and its overlap rule, which the command line reaches
// only behind the parser's own checks.
#include "image/ck_spec.h"

#include <gtest/gtest.h>

#include "image/testutil.h"

namespace {

using testutil::errors;

// From width 4 with code base 2: a refused value leaves both as they were.
TEST(CkSpec, SettersRefuseAndKeepTheOldValue) {
  struct row {
    bool (*set)(ckspec *);
    const char *errors;
  } rows[] = {
      {[](ckspec *s) { return ckspec_setResultWidth(s, 9); }, "EARG"},
      {[](ckspec *s) { return ckspec_setResultWidth(s, 3); }, "EBADCODEBASE"},
      {[](ckspec *s) { return ckspec_setResultWidth(s, 1); }, "EBADCODEBASE"},
      {[](ckspec *s) { return ckspec_setCodeBase(s, 0); }, "EARG"},
      {[](ckspec *s) { return ckspec_setCodeBase(s, 8); }, "EBADCODEBASE"},
      {[](ckspec *s) { return ckspec_setCodeBase(s, 3); }, "EBADCODEBASE"},
      {[](ckspec *s) { return ckspec_setRange(s, 2, 1); }, "EBADADDR"},
  };
  for (const row &r : rows) {
    ckspec s;
    ASSERT_TRUE(ckspec_create(&s, 1) && ckspec_setResultWidth(&s, 4) && ckspec_setCodeBase(&s, 2));
    hex_clearErrors();
    EXPECT_FALSE(r.set(&s));
    EXPECT_EQ(errors(), r.errors);
    EXPECT_EQ(s.resultWidth * 10 + s.codeBase, 42u) << r.errors;
  }
}

// Only the first and last stored byte are tested, so a result spanning the
// whole range passes; an overlap is recorded but the value is kept.
TEST(CkSpec, OverlapIsRecordedAndStored) {
  struct row {
    uint64_t start, end, dest;
    bool code, overlaps;
  } rows[] = {
      {0x10, 0x1F, 0x20, false, false}, {0x10, 0x1F, 0x1F, false, true},
      {0x10, 0x1F, 0x0E, false, true},  {0x10, 0x1F, 0x0D, false, false},
      {0x10, 0x1F, 0x0C, true, true},   {0x11, 0x11, 0x10, false, false},
  };
  for (const row &r : rows) {
    ckspec s;
    ASSERT_TRUE(ckspec_create(&s, 1) && ckspec_setResultWidth(&s, 3));
    if (r.code)
      ckspec_addCodeByte(&s, 0xAA); // 3 + 3 bytes
    ASSERT_TRUE(ckspec_setRange(&s, r.start, r.end));
    hex_clearErrors();
    EXPECT_TRUE(ckspec_setResultDest(&s, r.dest));
    EXPECT_EQ(errors(), r.overlaps ? "EOVERLAPS" : "") << r.dest;
    EXPECT_EQ(s.resultDest, r.dest);
  }
}

} // namespace
