// The spec's refusals and its overlap rule, which no command line reaches
// on its own (the parser checks most values before setting them).
#include "ihex/ck_spec.h"

#include <gtest/gtest.h>

#include "ihex/testutil.h"

namespace {

using testutil::errors;

TEST(CkSpec, SettersRefuseOrStore) {
  struct row {
    const char *name;
    bool (*set)(ckspec *);
    bool ok;
    const char *errors;
    uint32_t width, base; // afterwards
  } rows[] = {
      {"width above the algorithm's", [](ckspec *s) { return ckspec_setResultWidth(s, 9); }, false,
       "EARG", 4, 2},
      {"width not a multiple of the code base",
       [](ckspec *s) { return ckspec_setResultWidth(s, 3); }, false, "EBADCODEBASE", 4, 2},
      {"width below the code base", [](ckspec *s) { return ckspec_setResultWidth(s, 1); }, false,
       "EBADCODEBASE", 4, 2},
      {"code base 0", [](ckspec *s) { return ckspec_setCodeBase(s, 0); }, false, "EARG", 4, 2},
      {"code base above the width", [](ckspec *s) { return ckspec_setCodeBase(s, 8); }, false,
       "EBADCODEBASE", 4, 2},
      {"code base dividing the width", [](ckspec *s) { return ckspec_setCodeBase(s, 4); }, true,
       "", 4, 4},
      {"skip word of 1", [](ckspec *s) { return ckspec_setSkipWordWidth(s, 1); }, false, "EARG", 4,
       2},
      {"no skip bytes", [](ckspec *s) { return ckspec_setSkipBytes(s, 0); }, false, "EARG", 4, 2},
      {"reversed range", [](ckspec *s) { return ckspec_setRange(s, 2, 1); }, false, "EBADADDR", 4,
       2},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.name);
    ckspec s;
    ASSERT_TRUE(ckspec_create(&s, 1));
    ASSERT_TRUE(ckspec_setResultWidth(&s, 4) && ckspec_setCodeBase(&s, 2));
    hex_clearErrors();
    EXPECT_EQ(r.set(&s), r.ok);
    EXPECT_EQ(errors(), r.errors);
    EXPECT_EQ(s.resultWidth, r.width);
    EXPECT_EQ(s.codeBase, r.base);
  }
  hex_clearErrors();
  EXPECT_FALSE(ckspec_create(nullptr, 1));
  ckspec s;
  EXPECT_FALSE(ckspec_create(&s, 9));
  EXPECT_EQ(ckspec_getCodeByte(&s, 0), 0);
  EXPECT_EQ(errors(), "ENULL EUNKNOWNTYPE ENOCODE");
}

// Only the first and last stored byte are tested, so a result spanning the
// whole range is accepted; an overlap is recorded but the value is kept.
TEST(CkSpec, OverlapIsRecordedAndStored) {
  struct row {
    uint64_t start, end, dest;
    unsigned codes;
    bool overlaps;
  } rows[] = {
      {0x10, 0x1F, 0x20, 0, false}, {0x10, 0x1F, 0x1F, 0, true}, {0x10, 0x1F, 0x0E, 0, true},
      {0x10, 0x1F, 0x0D, 0, false}, {0x10, 0x1F, 0x0C, 1, true}, {0x11, 0x11, 0x10, 0, false},
  };
  for (const row &r : rows) {
    ckspec s;
    ASSERT_TRUE(ckspec_create(&s, 1));
    ASSERT_TRUE(ckspec_setResultWidth(&s, 3));
    for (unsigned i = 0; i < r.codes; ++i)
      ckspec_addCodeByte(&s, 0xAA); // 3 + 3 bytes
    ckspec_setRange(&s, r.start, r.end);
    hex_clearErrors();
    EXPECT_TRUE(ckspec_setResultDest(&s, r.dest));
    EXPECT_EQ(errors(), r.overlaps ? "EOVERLAPS" : "") << r.dest;
    EXPECT_EQ(s.resultDest, r.dest);
  }
}

TEST(CkSpec, SkippedBytesAreTheLastOfEachAlignedWord) {
  ckspec s;
  ASSERT_TRUE(ckspec_create(&s, 5));
  std::string seen;
  ckspec_setSkipWordWidth(&s, 4);
  ckspec_setSkipBytes(&s, 2);
  for (uint64_t a = 0x100; a < 0x108; ++a)
    seen += ckspec_isSkipped(&s, a) ? 'S' : '.';
  EXPECT_EQ(seen, "..SS..SS");
  hex_clearErrors();
  ckspec_setSkipBytes(&s, 4);
  EXPECT_FALSE(ckspec_isSkipped(&s, 3));
  EXPECT_EQ(errors(), "EBADSKIP");
}

} // namespace
