// Option value grammar: numbers in every radix, address ranges and
// hexadecimal code strings, read the same way by every option. The helpers
// complain through arg_error / arg_warning (messages 1600 / 1601) with the
// whole option text; their error flag is set on entry and cleared only on
// success, so a caller that finds it set answers MATCH_ERROR.
#pragma once

#include <cstdint>
#include <vector>

struct romweld_arg;

enum radix_t : int {
  RADIX_16 = 16,
  RADIX_10 = 10,
  RADIX_8 = 8,
  RADIX_2 = 2,
  RADIX_DEFAULT_10 = -10,
  RADIX_DEFAULT_16 = -16,
};

enum nibble_t : int {
  NIBBLE_ERROR = 0,
  NIBBLE_FIRST_TRUNCATE = 1,
  NIBBLE_LAST_TRUNCATE = 2,
  NIBBLE_FIRST_PAD_ZERO = 3,
};

constexpr unsigned MAX_ARG_BYTES = 8;

// The common core; never complains. bytes is 0 when no digit was read.
struct readnum_result {
  uint64_t value;
  unsigned bits;
  unsigned bytes;
  const char *end;
};
readnum_result grammar_readNumber(const char *text, int radix);

struct numreq {
  const romweld_arg *arg;
  const char *what;
  const char *start;
  unsigned maxBytes; // 1..MAX_ARG_BYTES
  int radix;
  uint64_t value = 0;
  bool error = true;
  const char *end = nullptr;
};
void grammar_number(numreq *r);

// "start-end" in address units, unscaled; the caller checks the order.
struct rangereq {
  const romweld_arg *arg;
  const char *start;
  int radix;
  uint64_t startValue = 0;
  uint64_t endValue = 0;
  bool error = true;
  const char *end = nullptr;
};
void grammar_range(rangereq *r);

struct codereq {
  const romweld_arg *arg;
  const char *what;
  const char *start;
  int odd_nibble;
  std::vector<uint8_t> result;
  bool error = true;
  const char *end = nullptr;
};
void grammar_codeString(codereq *r);

// The same for parsers that walk a cursor: read at p, and on success move p
// past what was read; false after the helper has complained.
[[nodiscard]] bool grammar_take(const romweld_arg *a, const char *what, const char *&p,
                                unsigned maxBytes, int radix, uint64_t *value);
[[nodiscard]] bool grammar_takeCode(const romweld_arg *a, const char *what, const char *&p,
                                    int oddNibble, std::vector<uint8_t> *bytes);
