#include "romweld/grammar.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/alert.h"
#include "romweld/args.h"
#include "romweld/settings.h"

namespace {

std::vector<std::string> g_lines;
void collect(const char *line) { g_lines.push_back(line); }

// Captures the messages of one test and restores the run afterwards.
class Grammar : public testing::Test {
protected:
  void SetUp() override {
    alert_resetForTests();
    alert_setSink(collect);
    g_lines.clear();
    romweld_reset();
    arg.str = "-OPT=value";
  }
  void TearDown() override {
    alert_setSink(nullptr);
    romweld_reset();
  }
  romweld_arg arg;
};

struct NumberRow {
  const char *text;
  int radix;
  uint64_t value;
  unsigned bytes;
  size_t end; // offset of the cursor after the number
};

const NumberRow kNumbers[] = {
    {"FF", RADIX_DEFAULT_16, 0xFF, 1, 2},
    {"100", RADIX_DEFAULT_16, 0x100, 2, 3},
    {"0", RADIX_DEFAULT_16, 0, 1, 1},
    {"000", RADIX_10, 0, 1, 3},
    {"00000001", RADIX_16, 1, 1, 8},
    {"", RADIX_DEFAULT_16, 0, 0, 0},
    {"G", RADIX_DEFAULT_16, 0, 0, 0},
    {"+7", RADIX_10, 7, 1, 2},
    {"255", RADIX_10, 255, 1, 3},
    {"256", RADIX_10, 256, 2, 3},
    {"12AB", RADIX_10, 12, 1, 2},
    // "0x" is a prefix only where hexadecimal is possible; elsewhere the
    // number ends on the "x" with no width.
    {"0x10", RADIX_10, 0, 0, 1},
    {"0x10", RADIX_2, 0, 0, 1},
    {"0x10", RADIX_DEFAULT_10, 0x10, 1, 4},
    {"0X1f", RADIX_16, 0x1F, 1, 4},
    {"0x", RADIX_16, 0, 0, 2},
    // A leading "0" means octal only under the decimal default.
    {"010", RADIX_DEFAULT_10, 8, 1, 3},
    {"010", RADIX_DEFAULT_16, 0x10, 1, 3},
    {"010", RADIX_10, 10, 1, 3},
    {"018", RADIX_DEFAULT_10, 16, 1, 3},
    {"8", RADIX_8, 8, 1, 1},
    {"9", RADIX_8, 0, 0, 0},
    // The "0b" test looks at the third character and switches to base 16.
    {"0b1101", RADIX_DEFAULT_10, 0, 1, 1},
    {"0AB", RADIX_DEFAULT_16, 0xB, 1, 3},
    {"0AB", RADIX_DEFAULT_10, 0xB, 1, 3},
    {"01b", RADIX_2, 0xB, 1, 3},
    {"0AB", RADIX_16, 0, 0, 1},
    {"01b", RADIX_10, 0, 0, 1},
    {"12", RADIX_2, 1, 1, 1},
    {"111111111", RADIX_2, 0x1FF, 2, 9},
    // Signs: the value is negated and the width gains one bit.
    {"-1", RADIX_DEFAULT_16, ~uint64_t(0), 1, 2},
    {"-", RADIX_DEFAULT_16, 0, 0, 1},
    {"-128", RADIX_10, uint64_t(-128), 2, 4},
    // 64 bits and beyond.
    {"FFFFFFFFFFFFFFFF", RADIX_16, ~uint64_t(0), 8, 16},
    {"10000000000000000", RADIX_16, 0, 9, 17},
    {"123456789ABCDEF012", RADIX_16, 0x23456789ABCDEF01, 9, 17},
    {"18446744073709551615", RADIX_10, ~uint64_t(0), 8, 20},
    // A decimal wrap counts only once the value has dropped, before a next
    // digit: one on the last digit keeps the wrapped value.
    {"18446744073709551617", RADIX_10, 1, 1, 20},
    {"30000000000000000000", RADIX_10, 11553255926290448384ull, 8, 20},
    {"-FFFFFFFFFFFFFFFF", RADIX_16, 1, 9, 17},
    // The 20th digit drops the value below the 19-digit one; the 21st is
    // then not taken, and the number is too wide.
    {"999999999999999999999", RADIX_10, 0, 9, 20},
    {"-999999999999999999999", RADIX_10, 0, 9, 21},
};

TEST(ReadNumber, Table) {
  for (const NumberRow &row : kNumbers) {
    SCOPED_TRACE(testing::Message() << "\"" << row.text << "\" radix " << row.radix);
    readnum_result r = grammar_readNumber(row.text, row.radix);
    EXPECT_EQ(r.bytes, row.bytes);
    if (row.bytes != 0 && row.bytes <= MAX_ARG_BYTES) {
      EXPECT_EQ(r.value, row.value);
    }
    EXPECT_EQ(static_cast<size_t>(r.end - row.text), row.end);
  }
}

// The number helper's messages are seen through the range helper here, and
// with each option's own wording in test/cli.
TEST_F(Grammar, RangeHelper) {
  struct Row {
    const char *text;
    const char *message;
    uint64_t lo, hi;
    char stop;
  };
  const Row rows[] = {
      {"10-20@", nullptr, 0x10, 0x20, '@'},
      {"20-10", nullptr, 0x20, 0x10, '\0'}, // order is the caller's concern
      {"FFFFFFFFFFFFFFFF-0", nullptr, ~uint64_t(0), 0, '\0'}, // 8 bytes fit
      {"G-5", "cannot determine start address", 0, 0, 0},
      {"10000000000000000-1", "start address is too wide, it must be <= 8 bytes", 0, 0, 0},
      {"10", "range requires an end address", 0, 0, 0},
      {"10:20", "range requires an end address", 0, 0, 0},
      {"5-", "cannot determine end address", 0, 0, 0},
      {"1-10000000000000000", "end address is too wide, it must be <= 8 bytes", 0, 0, 0},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    g_lines.clear();
    rangereq r{&arg, row.text, RADIX_16};
    grammar_range(&r);
    if (!row.message) {
      EXPECT_FALSE(r.error);
      EXPECT_EQ(r.startValue, row.lo);
      EXPECT_EQ(r.endValue, row.hi);
      EXPECT_EQ(*r.end, row.stop);
      continue;
    }
    EXPECT_TRUE(r.error);
    ASSERT_EQ(g_lines.size(), 1u);
    EXPECT_NE(g_lines[0].find(row.message), std::string::npos) << g_lines[0];
  }
}

TEST_F(Grammar, CodeString) {
  struct Row {
    const char *text;
    int policy;
    std::vector<uint8_t> bytes;
    const char *message; // the error, or the warning when bytes are given
  };
  const Row rows[] = {
      {"0x1234@", NIBBLE_ERROR, {0x12, 0x34}, nullptr},
      {"abCD", NIBBLE_ERROR, {0xAB, 0xCD}, nullptr},
      {"ABC", NIBBLE_FIRST_PAD_ZERO, {0x0A, 0xBC},
       "code contains an uneven number of nibbles and will be zero padded to \"0ABC\""},
      {"ABC", NIBBLE_FIRST_TRUNCATE, {0xBC},
       "code contains an uneven number of nibbles and will be truncated to \"BC\""},
      {"ABC", NIBBLE_LAST_TRUNCATE, {0xAB},
       "code contains an uneven number of nibbles and will be truncated to \"AB\""},
      {"ABC", NIBBLE_ERROR, {}, "code contains an uneven number of nibbles"},
      {"-12", NIBBLE_ERROR, {}, "code must be in unsigned hexadecimal"},
      {"+12", NIBBLE_ERROR, {}, "code must be in unsigned hexadecimal"},
      {"0x", NIBBLE_ERROR, {}, "code is empty"},
      {"@1000", NIBBLE_FIRST_PAD_ZERO, {}, "code is empty"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::Message() << row.text << " policy " << row.policy);
    g_lines.clear();
    codereq r{&arg, "code", row.text, row.policy, {}};
    grammar_codeString(&r);
    EXPECT_EQ(r.error, row.bytes.empty());
    EXPECT_EQ(r.result, row.bytes);
    if (row.message) {
      ASSERT_EQ(g_lines.size(), 1u);
      EXPECT_NE(g_lines[0].find(row.message), std::string::npos) << g_lines[0];
    } else {
      EXPECT_TRUE(g_lines.empty());
    }
    if (!r.error) {
      EXPECT_EQ(*r.end, std::string(row.text).back() == '@' ? '@' : '\0');
    }
  }
}

TEST_F(Grammar, TruncatingTheOnlyNibbleLeavesNothing) {
  codereq r{&arg, "code", "A", NIBBLE_FIRST_TRUNCATE, {}};
  grammar_codeString(&r);
  EXPECT_TRUE(r.error);
  ASSERT_EQ(g_lines.size(), 2u); // the truncation warning, then the error
  EXPECT_NE(g_lines[1].find("code is empty"), std::string::npos) << g_lines[1];
}

} // namespace
