// The value grammar's number reader over every radix; the range and code
// string helpers' messages are in parse_test.cpp.
#include "romweld/grammar.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

// The text, the radix, its value, its width in bytes and the offset of the
// cursor after the number.
const std::tuple<const char *, int, uint64_t, unsigned, size_t> kNumbers[] = {
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
  for (auto [text, radix, value, bytes, end] : kNumbers) {
    SCOPED_TRACE(testing::Message() << "\"" << text << "\" radix " << radix);
    readnum_result r = grammar_readNumber(text, radix);
    EXPECT_EQ(r.bytes, bytes);
    if (bytes != 0 && bytes <= MAX_ARG_BYTES) {
      EXPECT_EQ(r.value, value);
    }
    EXPECT_EQ(static_cast<size_t>(r.end - text), end);
  }
}

} // namespace
