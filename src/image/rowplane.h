// Attribute planes of an image row: 256 bits, column c being bit c % 64 of
// word c / 64. Every walk over a row's present, preserved or forced bytes
// goes through these scanners, which look at a word of 64 columns at a time.
// Column ranges c0..c1 are inclusive, with c0 <= c1 <= 255.
#pragma once

#include <algorithm>
#include <cstdint>

inline bool plane_bit(const uint64_t *p, unsigned c) { return (p[c >> 6] >> (c & 63)) & 1; }
inline void plane_setBit(uint64_t *p, unsigned c) { p[c >> 6] |= uint64_t(1) << (c & 63); }
inline void plane_clearBit(uint64_t *p, unsigned c) { p[c >> 6] &= ~(uint64_t(1) << (c & 63)); }

// The bits of word w that stand for columns c0..c1.
inline uint64_t plane_wordMask(unsigned w, unsigned c0, unsigned c1) {
  const unsigned lo = w * 64, hi = lo + 63;
  if (c1 < lo || c0 > hi)
    return 0;
  const unsigned a = std::max(c0, lo) - lo, b = std::min(c1, hi) - lo;
  return (b == 63 ? ~uint64_t(0) : (uint64_t(1) << (b + 1)) - 1) & ~((uint64_t(1) << a) - 1);
}

// The first column in c..c1 whose bit is `set`, else c1 + 1.
inline unsigned plane_next(const uint64_t *p, unsigned c, unsigned c1, bool set) {
  while (c <= c1) {
    const uint64_t bits = (set ? p[c >> 6] : ~p[c >> 6]) >> (c & 63);
    if (bits)
      return std::min(c + unsigned(__builtin_ctzll(bits)), c1 + 1);
    c = (c | 63) + 1;
  }
  return c1 + 1;
}

// The last set column in c0..c1; -1 when none is set.
inline int plane_last(const uint64_t *p, unsigned c0, unsigned c1) {
  for (unsigned w = (c1 >> 6) + 1; w-- > (c0 >> 6);)
    if (const uint64_t v = p[w] & plane_wordMask(w, c0, c1))
      return int(w * 64 + 63 - unsigned(__builtin_clzll(v)));
  return -1;
}

inline bool plane_any(const uint64_t *p, unsigned c0, unsigned c1) {
  return plane_next(p, c0, c1, true) <= c1;
}

inline unsigned plane_count(const uint64_t *p, unsigned c0, unsigned c1) {
  unsigned n = 0;
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    n += unsigned(__builtin_popcountll(p[w] & plane_wordMask(w, c0, c1)));
  return n;
}

inline void plane_setRange(uint64_t *p, unsigned c0, unsigned c1) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    p[w] |= plane_wordMask(w, c0, c1);
}

// Calls fn(c) for every set column of c0..c1 in ascending order, until fn
// returns false; the plane may change under it.
template <class Fn> void plane_eachSet(const uint64_t *p, unsigned c0, unsigned c1, Fn fn) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    for (uint64_t v = p[w] & plane_wordMask(w, c0, c1); v; v &= v - 1)
      if (!fn(w * 64 + unsigned(__builtin_ctzll(v))))
        return;
}
