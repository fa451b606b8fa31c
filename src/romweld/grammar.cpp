#include "romweld/grammar.h"

#include <bit>
#include <cctype>
#include <string>

#include "common/alert.h"
#include "romweld/args.h"

namespace {

bool validRadix(int base) {
  return base == RADIX_16 || base == RADIX_10 || base == RADIX_8 || base == RADIX_2 ||
         base == RADIX_DEFAULT_10 || base == RADIX_DEFAULT_16;
}

// Digit value of c in base, or -1 when c does not belong to it. '8' belongs
// to base 8 and counts as 8: intended, users rely on it.
int digitIn(char c, int base) {
  if (!std::isxdigit(static_cast<unsigned char>(c)))
    return -1;
  if (std::isalpha(static_cast<unsigned char>(c)))
    return base == 16 ? std::tolower(static_cast<unsigned char>(c)) - 'a' + 10 : -1;
  int d = c - '0';
  if (d == 9 && (base == 8 || base == 2))
    return -1;
  if (d >= 2 && d <= 8 && base == 2)
    return -1;
  return d;
}

unsigned nibble(char c) { return static_cast<unsigned>(digitIn(c, 16)); }

unsigned bitsPerDigit(int base) { return base == 16 ? 4 : base == 8 ? 3 : 1; }

readnum_result finish(uint64_t value, unsigned bits, bool negative, const char *end) {
  if (bits == 0) // no digit at all
    return {0, 0, 0, end};
  if (negative) {
    bits += 1;
    value = ~value + 1;
  }
  return {value, bits, (bits + 7) / 8, end};
}

} // namespace

readnum_result grammar_readNumber(const char *text, int radix) {
  ROMWELD_ASSERT(text != nullptr);
  ROMWELD_ASSERT(validRadix(radix));
  const char *p = text;
  bool negative = false;
  if (*p == '-') {
    negative = true;
    ++p;
  } else if (*p == '+') {
    ++p;
  }

  int base = radix;
  bool sawZero = false;
  if (*p == '0') {
    if (p[1] == 'x' || p[1] == 'X') {
      if (radix == RADIX_2 || radix == RADIX_8 || radix == RADIX_10)
        return {0, 0, 0, p + 1};
      p += 2;
      base = 16;
    } else if (p[1] != '\0' && (p[2] == 'b' || p[2] == 'B')) {
      // Intended: the "0b" prefix is looked for on the third character, and
      // it switches to base 16, so "0AB" reads as B and "0b1101" is not binary.
      if (radix == RADIX_8 || radix == RADIX_10 || radix == RADIX_16)
        return {0, 0, 0, p + 1};
      p += 2;
      base = 16;
    } else {
      ++p;
      sawZero = true;
      if (radix == RADIX_DEFAULT_10)
        base = 8;
      else if (radix == RADIX_DEFAULT_16)
        base = 16;
    }
  } else if (radix < 0) {
    base = -radix;
  }
  ROMWELD_ASSERT(base > 0);

  uint64_t value = 0;
  uint64_t previous = 0;    // the decimal accumulation before the last digit
  unsigned bits = 0;
  bool significant = false; // a non-zero digit has been taken
  bool tooLong = false;     // reading stopped on overflow
  for (int d; (d = digitIn(*p, base)) >= 0; ++p) {
    // Intended: overflow is looked for only before the next digit, and a
    // decimal value counts as overflowed only once it has dropped below
    // the one before, so a decimal number that wraps on its last digit
    // keeps its wrapped value and width.
    if (bits > 64 || value < previous) {
      tooLong = true;
      break;
    }
    sawZero = sawZero || d == 0;
    if (!significant && d == 0)
      continue; // leading zeros do not count towards the width
    significant = true;
    const unsigned digit = static_cast<unsigned>(d);
    if (base == 10) {
      previous = value;
      value = value * 10 + digit;
    } else {
      value = value * static_cast<unsigned>(base) + digit;
      bits += bitsPerDigit(base);
    }
  }
  if (tooLong)
    bits = 65;
  else if (base == 10 && significant)
    bits = static_cast<unsigned>(std::bit_width(value));
  else if (!significant && sawZero)
    bits = 1; // a number of zeros only still takes one bit
  return finish(value, bits, negative, p);
}

void grammar_number(numreq *r) {
  ROMWELD_ASSERT(r != nullptr && r->arg != nullptr && r->start != nullptr);
  ROMWELD_ASSERT(r->maxBytes > 0 && r->maxBytes <= MAX_ARG_BYTES);
  r->error = true;
  readnum_result n = grammar_readNumber(r->start, r->radix);
  if (n.bytes == 0) {
    arg_error(r->arg, "cannot determine %s", r->what);
    return;
  }
  if (n.bytes > r->maxBytes) {
    arg_error(r->arg, "%s is too wide, it must be <= %d bytes", r->what,
              static_cast<int>(r->maxBytes));
    return;
  }
  r->value = n.value;
  r->end = n.end;
  r->error = false;
}

void grammar_range(rangereq *r) {
  ROMWELD_ASSERT(r != nullptr && r->arg != nullptr && r->start != nullptr);
  r->error = true;
  // Each bound is a number of up to 8 bytes, named in the number's messages.
  numreq lo{r->arg, "start address", r->start, MAX_ARG_BYTES, r->radix};
  grammar_number(&lo);
  if (lo.error)
    return;
  if (*lo.end != '-') {
    arg_error(r->arg, "range requires an end address");
    return;
  }
  numreq hi{r->arg, "end address", lo.end + 1, MAX_ARG_BYTES, r->radix};
  grammar_number(&hi);
  if (hi.error)
    return;
  // In address units as typed: the operation converts them with the unit in
  // force when it runs, which parsing cannot know yet (units.h).
  r->startValue = lo.value;
  r->endValue = hi.value;
  r->end = hi.end;
  r->error = false;
}

void grammar_codeString(codereq *r) {
  ROMWELD_ASSERT(r != nullptr && r->arg != nullptr && r->start != nullptr);
  ROMWELD_ASSERT(r->odd_nibble >= NIBBLE_ERROR && r->odd_nibble <= NIBBLE_FIRST_PAD_ZERO);
  r->error = true;
  const char *p = r->start;
  if (*p == '+' || *p == '-') {
    arg_error(r->arg, "%s must be in unsigned hexadecimal", r->what);
    return;
  }
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X'))
    p += 2;
  const char *q = p;
  while (std::isxdigit(static_cast<unsigned char>(*q)))
    ++q;
  r->end = q;

  std::string digits(p, q);
  if (digits.size() % 2 != 0) {
    bool padded = false;
    switch (r->odd_nibble) {
    case NIBBLE_ERROR:
      arg_error(r->arg, "%s contains an uneven number of nibbles", r->what);
      return;
    case NIBBLE_FIRST_TRUNCATE:
      digits.erase(0, 1);
      break;
    case NIBBLE_LAST_TRUNCATE:
      digits.pop_back();
      break;
    default:
      digits.insert(0, 1, '0');
      padded = true;
      break;
    }
    std::string change = padded ? alert_format("zero padded to \"%s\"", digits.c_str())
                                : alert_format("truncated to \"%s\"", digits.c_str());
    arg_warning(r->arg, "%s contains an uneven number of nibbles and will be %s", r->what,
                change.c_str());
  }
  if (digits.empty()) {
    arg_error(r->arg, "%s is empty", r->what);
    return;
  }
  r->result.clear();
  for (size_t i = 0; i < digits.size(); i += 2)
    r->result.push_back(static_cast<uint8_t>(nibble(digits[i]) << 4 | nibble(digits[i + 1])));
  r->error = false;
}

bool grammar_take(const romweld_arg *a, const char *what, const char *&p, unsigned maxBytes,
                  int radix, uint64_t *value) {
  numreq r{a, what, p, maxBytes, radix};
  grammar_number(&r);
  if (r.error)
    return false;
  *value = r.value;
  p = r.end;
  return true;
}

bool grammar_takeCode(const romweld_arg *a, const char *what, const char *&p, int oddNibble,
                      std::vector<uint8_t> *bytes) {
  codereq r{a, what, p, oddNibble, {}};
  grammar_codeString(&r);
  if (r.error)
    return false;
  *bytes = std::move(r.result);
  p = r.end;
  return true;
}
