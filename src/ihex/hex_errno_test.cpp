#include "ihex/hex_errno.h"

#include <gtest/gtest.h>

#include "ihex/testutil.h"

namespace {

using namespace testutil;

struct ErrorListTest : ::testing::Test {
  void SetUp() override { hex_clearErrors(); }
  void TearDown() override { hex_clearErrors(); }
};

TEST_F(ErrorListTest, EachCodeTakesItsOwnArguments) {
  struct Case {
    const char *what;
    void (*record)();
    uint32_t code;
    const char *want; // every field of the record that is not zero
  };
  const Case cases[] = {
      {"address", [] { hex_setError(ECLASH, uint64_t(0x123456789AB)); }, ECLASH, "ECLASH@123456789AB"},
      {"address and note", [] { hex_setError(ECLOBBERED, uint64_t(0x10), &ownerA); }, ECLOBBERED,
       "ECLOBBERED@10/A"},
      {"line", [] { hex_setError(ECHECKSUM, 42u); }, ECHECKSUM, "ECHECKSUM(42)"},
      {"line and type", [] { hex_setError(EUNKNOWNREC, 9u, 6u); }, EUNKNOWNREC, "EUNKNOWNREC(9,6)"},
      {"flag 0 takes a character", [] { hex_setError(EUNDEFADDR, uint64_t(0xFFFF), 0, int('x')); },
       EUNDEFADDR, "EUNDEFADDR@FFFF{0,x}"},
      {"a non-zero flag becomes 1 and takes no character",
       [] { hex_setError(EUNDEFADDR, uint64_t(0x20), 5, int('x')); }, EUNDEFADDR, "EUNDEFADDR@20{1}"},
      {"extra arguments are ignored", [] { hex_setError(ENODATA, uint64_t(0x55), 3u); }, ENODATA,
       "ENODATA"},
      {"code above the table", [] { hex_setError(40u, uint64_t(1)); }, 40, "Unknown"},
  };
  for (const Case &c : cases) {
    hex_clearErrors();
    c.record();
    EXPECT_EQ(errors(), c.want) << c.what;
    EXPECT_EQ(hex_errorAt(0).code, c.code) << c.what;
    EXPECT_EQ(hex_errno(), c.code) << c.what;
  }
}

TEST_F(ErrorListTest, CurrentErrorIsTheLastRecordedUntilCleared) {
  hex_setError(ECLASH, uint64_t(0x1234));
  hex_setError(EARG);
  EXPECT_EQ(hex_errno(), uint32_t(EARG));
  EXPECT_EQ(errors(), "ECLASH@1234 EARG");

  // Popping takes the oldest and leaves the current error alone.
  EXPECT_EQ(hex_popError().code, uint32_t(ECLASH));
  EXPECT_EQ(errors(), "EARG");
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
    std::string e;
    addError(e, hex_errorAt(index));
    EXPECT_EQ(e, "EBADINDEX");
    EXPECT_EQ(hex_errorAt(index).code, uint32_t(EBADINDEX));
  }
  // Asking does not record anything.
  EXPECT_EQ(errors(), "EPRESERVED@9");
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
