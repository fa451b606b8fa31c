#include "image/hex_errno.h"

#include <gtest/gtest.h>

#include "image/testutil.h"

namespace {

using namespace testutil;

struct ErrorListTest : ::testing::Test {
  void SetUp() override { hex_clearErrors(); }
  void TearDown() override { hex_clearErrors(); }
};

// Each code takes its own arguments and has its own name.
TEST_F(ErrorListTest, RecordsAndNames) {
  struct Case {
    const char *what;
    void (*record)();
    uint32_t code;
    const char *want; // every field of the record that is not zero
  };
  const Case cases[] = {
      {"address", [] { hex_setAddrError(ECLASH, 0xFFFFFFFFFFFFFF00); }, ECLASH,
       "ECLASH@FFFFFFFFFFFFFF00"},
      {"address and note", [] { hex_setClobbered(0x10, &ownerA); }, ECLOBBERED, "ECLOBBERED@10/A"},
      {"line", [] { hex_setNumError(ECHECKSUM, 42); }, ECHECKSUM, "ECHECKSUM(42)"},
      {"line and type", [] { hex_setUnknownRecord(9, 6); }, EUNKNOWNREC, "EUNKNOWNREC(9,6)"},
      {"flag 0 takes a character", [] { hex_setUndefAddr(0xFFFF, false, 'x'); }, EUNDEFADDR,
       "EUNDEFADDR@FFFF{0,x}"},
      {"a set flag takes no character", [] { hex_setUndefAddr(0x20, true, 'x'); }, EUNDEFADDR,
       "EUNDEFADDR@20{1}"},
      {"the first code past the table", [] { hex_setError(HEX_ERRCODE_COUNT); }, HEX_ERRCODE_COUNT, "Unknown"},
  };
  for (const Case &c : cases) {
    hex_clearErrors();
    c.record();
    EXPECT_EQ(errors(), c.want) << c.what;
    EXPECT_EQ(hex_errorAt(0).code, c.code) << c.what;
    EXPECT_EQ(hex_errno(), c.code) << c.what;
  }
  // Every code has its own name, spelled as the enumerator begins.
  EXPECT_STREQ(hex_strerror(0), "EOK");
  EXPECT_STREQ(hex_strerror(CKSPEC_EOVERLAPS), "EOVERLAPS");
  EXPECT_STREQ(hex_strerror(0xFFFFFFFF), "Unknown");
  for (uint32_t c = 1; c < HEX_ERRCODE_COUNT; ++c) {
    EXPECT_EQ(hex_strerror(c)[0], 'E') << c;
    EXPECT_STRNE(hex_strerror(c), hex_strerror(c - 1)) << c;
  }
}

// The current error is the last code recorded until the list is cleared;
// popping takes the oldest record and leaves the current error alone, and
// an index past the end yields a record of its own without recording one.
TEST_F(ErrorListTest, ReadingAndPoppingTheList) {
  hex_setAddrError(ECLASH, 0x1234);
  hex_setError(EARG);
  EXPECT_EQ(hex_errno(), uint32_t(EARG));
  EXPECT_EQ(errors(), "ECLASH@1234 EARG");
  EXPECT_EQ(hex_popError().code, uint32_t(ECLASH));
  std::string past; // one record is left
  addError(past, hex_errorAt(1));
  EXPECT_EQ(past, "EBADINDEX");
  EXPECT_EQ(hex_errorAt(1).code, uint32_t(EBADINDEX));
  EXPECT_EQ(errors(), "EARG");
  EXPECT_EQ(hex_popError().code, uint32_t(EARG));
  EXPECT_EQ(hex_errno(), uint32_t(EARG));
  const hex_error none = hex_popError();
  EXPECT_EQ(none.code, 0u);
  EXPECT_EQ(none.name, nullptr);
  hex_clearErrors();
  EXPECT_EQ(hex_errno(), 0u);
  EXPECT_EQ(hex_errorCount(), 0u);
}

// A code given to the entry of another record shape would lose or invent
// arguments: that is a programming error, not a record.
TEST_F(ErrorListTest, CodeOfAnotherShapeFailsTheCheck) {
  EXPECT_EXIT(hex_setError(ECLASH), testing::ExitedWithCode(1), "shapeOf\\(code\\) == s");
  EXPECT_EXIT(hex_setAddrError(EARG, 1), testing::ExitedWithCode(1), "assertion");
  EXPECT_EXIT(hex_setNumError(EUNKNOWNREC, 1), testing::ExitedWithCode(1), "assertion");
}

// The list keeps the first records with their arguments and counts the
// rest; the last code recorded is still the current error.
TEST_F(ErrorListTest, ListKeepsABoundedNumberOfRecords) {
  for (uint32_t i = 0; i < HEX_ERRORS_KEPT + 5; ++i)
    hex_setAddrError(ECLASH, i);
  hex_setError(EARG);
  EXPECT_EQ(hex_errorCount(), HEX_ERRORS_KEPT);
  EXPECT_EQ(hex_errorsDropped(), 6u);
  EXPECT_EQ(hex_errno(), uint32_t(EARG));
  EXPECT_EQ(hex_errorAt(HEX_ERRORS_KEPT - 1).addr, HEX_ERRORS_KEPT - 1);
  // Popping makes room again.
  hex_popError();
  hex_setAddrError(EPRESERVED, 7);
  EXPECT_EQ(hex_errorAt(HEX_ERRORS_KEPT - 1).code, uint32_t(EPRESERVED));
  hex_clearErrors();
  EXPECT_EQ(hex_errorsDropped(), 0u);
}

} // namespace
