#include "image/hexdata_find.h"

#include <algorithm>

#include "image/hex_errno.h"

namespace {

// Shift-and over the walked bytes: bit i of the state is set when the last
// i + 1 bytes match code bytes 0..i under the mask, so a match ends wherever
// bit n - 1 comes up. One table lookup per byte whatever the code's length
// and mask, so the search stays linear in the image. Codes of up to 64
// bytes keep the state in one word; longer ones in as many as they need.
template <bool OneWord>
class matcher {
public:
  explicit matcher(const findspec &s)
      : n_(s.code.size()), words_((n_ + 63) / 64), table_(256 * words_), state_(words_) {
    for (size_t i = 0; i < n_; ++i)
      for (unsigned v = 0; v < 256; ++v)
        if (((v ^ s.code[i]) & s.mask[i]) == 0)
          table_[v * words_ + i / 64] |= uint64_t(1) << (i % 64);
    top_ = uint64_t(1) << ((n_ - 1) % 64);
  }

  void reset() { std::fill(state_.begin(), state_.end(), 0); }

  // True when a match ends at this byte.
  bool step(uint8_t b) {
    const uint64_t *t = &table_[size_t(b) * words_];
    if constexpr (OneWord) {
      state_[0] = ((state_[0] << 1) | 1) & t[0];
      return state_[0] & top_;
    } else {
      uint64_t carry = 1;
      for (size_t w = 0; w < words_; ++w) {
        const uint64_t s = state_[w];
        state_[w] = ((s << 1) | carry) & t[w];
        carry = s >> 63;
      }
      return state_[words_ - 1] & top_;
    }
  }

private:
  size_t n_, words_;
  std::vector<uint64_t> table_; // per byte value: the code positions that accept it
  std::vector<uint64_t> state_;
  uint64_t top_;
};

// Walks the present bytes of first..last row by row (matches therefore
// start at first or later), jumping over missing
// rows, and calls end(address) wherever a match ends. A gap breaks every
// partial match.
template <class Matcher, class End>
void walk(const hexdata *h, uint64_t first, uint64_t last, Matcher &m, End end) {
  const uint64_t lastRow = hex_rowOf(last);
  uint64_t a = first;
  m.reset();
  for (;;) {
    const uint64_t row = hex_rowOf(a);
    const hex_row *r = hex_getRow(h, row);
    if (!r) {
      m.reset();
      if (!hex_nextPresent(h, a, &a) || a > last)
        return;
      continue;
    }
    const uint64_t base = row << 8;
    const unsigned c0 = unsigned(a & 0xFF), c1 = row == lastRow ? unsigned(last & 0xFF) : 255;
    for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w) {
      const unsigned from = std::max(c0, w * 64), to = std::min(c1, w * 64 + 63);
      const uint64_t present = r->present[w];
      if (present == ~uint64_t(0)) {
        for (unsigned c = from; c <= to; ++c)
          if (m.step(r->data[c]))
            end(base + c);
      } else {
        for (unsigned c = from; c <= to; ++c) {
          if (!((present >> (c & 63)) & 1))
            m.reset();
          else if (m.step(r->data[c]))
            end(base + c);
        }
      }
    }
    if (row == lastRow)
      return;
    a = base + 256;
  }
}

template <bool OneWord>
void search(const hexdata *h, const findspec &s, uint64_t first, uint64_t last,
            findmatches *out) {
  matcher<OneWord> m(s);
  const uint64_t n = s.code.size();
  walk(h, first, last, m, [&](uint64_t endAddr) {
    const uint64_t at = endAddr - (n - 1);
    if (s.alignment > 1 && (at - first) % s.alignment != 0)
      return;
    if (!s.overlap && !out->empty() && at - out->runs.back().last() < n)
      return;
    out->add(at);
  });
}

} // namespace

bool hex_find(const hexdata *h, const findspec *s, findmatches *out) {
  if (!h || !s || !out) {
    hex_setError(ENULL);
    return false;
  }
  *out = findmatches{};
  out->width = s->code.size();
  if (s->code.empty()) {
    hex_setError(ENOCODE);
    return false;
  }
  if (hex_getByteCount(h) == 0)
    return true;
  const uint64_t lo = hex_getLoAddr(h), hi = hex_getHiAddr(h);
  const uint64_t L = s->range.hasStart ? std::max(s->range.start, lo) : lo;
  // Intended: the first candidate is L + (L mod alignment), not the next
  // multiple of the alignment.
  uint64_t first;
  if (__builtin_add_overflow(L, L % s->alignment, &first))
    return true;
  // The last address a match may reach. With an end, the limit itself is
  // left out, so neither the end nor the image's last byte is ever matched.
  uint64_t last = hi;
  if (s->range.hasEnd) {
    const uint64_t limit = std::min(s->range.end, hi);
    if (limit == 0)
      return true;
    last = limit - 1;
  }
  if (first > last || last - first < out->width - 1)
    return true;
  if (out->width <= 64)
    search<true>(h, *s, first, last, out);
  else
    search<false>(h, *s, first, last, out);
  return true;
}
