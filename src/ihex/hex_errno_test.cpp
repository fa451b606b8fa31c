#include "ihex/hex_errno.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

struct ErrorListTest : ::testing::Test {
  void SetUp() override { hex_clearErrors(); }
  void TearDown() override { hex_clearErrors(); }
};

TEST_F(ErrorListTest, EachCodeTakesItsOwnArguments) {
  int owner = 0;
  struct Case {
    const char *what;
    void (*record)(const void *note);
    hex_error want;
  };
  const Case cases[] = {
      {"address", [](const void *) { hex_setError(ECLASH, uint64_t(0x123456789AB)); },
       {ECLASH, "ECLASH", 0x123456789AB, nullptr, 0, 0, 0, 0}},
      {"preserved address", [](const void *) { hex_setError(EPRESERVED, uint64_t(7)); },
       {EPRESERVED, "EPRESERVED", 7, nullptr, 0, 0, 0, 0}},
      {"address and note", [](const void *n) { hex_setError(ECLOBBERED, uint64_t(0x10), n); },
       {ECLOBBERED, "ECLOBBERED", 0x10, &owner, 0, 0, 0, 0}},
      {"line", [](const void *) { hex_setError(ECHECKSUM, 42u); },
       {ECHECKSUM, "ECHECKSUM", 0, nullptr, 42, 0, 0, 0}},
      {"reason", [](const void *) { hex_setError(EHEX, 3u); }, {EHEX, "EHEX", 0, nullptr, 3, 0, 0, 0}},
      {"line and type", [](const void *) { hex_setError(EUNKNOWNREC, 9u, 6u); },
       {EUNKNOWNREC, "EUNKNOWNREC", 0, nullptr, 9, 6, 0, 0}},
      {"flag 0 takes a character",
       [](const void *) { hex_setError(EUNDEFADDR, uint64_t(0xFFFF), 0, int('x')); },
       {EUNDEFADDR, "EUNDEFADDR", 0xFFFF, nullptr, 0, 0, 0, 'x'}},
      {"a non-zero flag becomes 1 and takes no character",
       [](const void *) { hex_setError(EUNDEFADDR, uint64_t(0x20), 5, int('x')); },
       {EUNDEFADDR, "EUNDEFADDR", 0x20, nullptr, 0, 0, 1, 0}},
      {"extra arguments are ignored",
       [](const void *) { hex_setError(ENODATA, uint64_t(0x55), 3u); },
       {ENODATA, "ENODATA", 0, nullptr, 0, 0, 0, 0}},
      {"code above the table", [](const void *) { hex_setError(40u, uint64_t(1)); },
       {40, "Unknown", 0, nullptr, 0, 0, 0, 0}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    hex_clearErrors();
    c.record(&owner);
    ASSERT_EQ(hex_errorCount(), 1u);
    hex_error e = hex_errorAt(0);
    EXPECT_EQ(e.code, c.want.code);
    EXPECT_STREQ(e.name, c.want.name);
    EXPECT_EQ(e.addr, c.want.addr);
    EXPECT_EQ(e.note, c.want.note);
    EXPECT_EQ(e.num, c.want.num);
    EXPECT_EQ(e.num2, c.want.num2);
    EXPECT_EQ(e.flag, c.want.flag);
    EXPECT_EQ(e.ch, c.want.ch);
    EXPECT_EQ(hex_errno(), c.want.code);
  }
}

TEST_F(ErrorListTest, CurrentErrorIsTheLastRecordedUntilCleared) {
  hex_setError(ECLASH, uint64_t(0x1234));
  hex_setError(EARG);
  EXPECT_EQ(hex_errno(), uint32_t(EARG));
  ASSERT_EQ(hex_errorCount(), 2u);
  EXPECT_EQ(hex_errorAt(0).addr, 0x1234u);

  // Popping takes the oldest and leaves the current error alone.
  hex_error first = hex_popError();
  EXPECT_EQ(first.code, uint32_t(ECLASH));
  EXPECT_EQ(hex_errorCount(), 1u);
  EXPECT_EQ(hex_errorAt(0).code, uint32_t(EARG));
  EXPECT_EQ(hex_popError().code, uint32_t(EARG));
  EXPECT_EQ(hex_errno(), uint32_t(EARG));

  hex_error none = hex_popError();
  EXPECT_EQ(none.code, 0u);
  EXPECT_EQ(none.name, nullptr);

  hex_setError(EIO);
  hex_clearErrors();
  EXPECT_EQ(hex_errno(), 0u);
  EXPECT_EQ(hex_errorCount(), 0u);
}

TEST_F(ErrorListTest, IndexPastTheEndYieldsBadIndexRecord) {
  hex_setError(EPRESERVED, uint64_t(9));
  for (uint32_t index : {1u, 2u, 0xFFFFFFFFu}) {
    hex_error e = hex_errorAt(index);
    EXPECT_EQ(e.code, uint32_t(EBADINDEX));
    EXPECT_STREQ(e.name, "EBADINDEX");
    EXPECT_EQ(e.addr, 0u);
  }
  // Asking does not record anything.
  EXPECT_EQ(hex_errorCount(), 1u);
  EXPECT_EQ(hex_errno(), uint32_t(EPRESERVED));
}

TEST_F(ErrorListTest, NamesFollowTheCodes) {
  EXPECT_STREQ(hex_strerror(0), "EOK");
  EXPECT_STREQ(hex_strerror(12), "EIPCONFLICT");
  EXPECT_STREQ(hex_strerror(CKSPEC_EOVERLAPS), "EOVERLAPS");
  EXPECT_STREQ(hex_strerror(35), "EBADINDEX");
  EXPECT_STREQ(hex_strerror(36), "Unknown");
  EXPECT_STREQ(hex_strerror(0xFFFFFFFF), "Unknown");
  // Every code has its own name, spelled as the enumerator begins.
  for (uint32_t c = 1; c < HEX_ERRCODE_COUNT; ++c) {
    EXPECT_EQ(hex_strerror(c)[0], 'E') << c;
    EXPECT_STRNE(hex_strerror(c), hex_strerror(c - 1)) << c;
  }
}

} // namespace
