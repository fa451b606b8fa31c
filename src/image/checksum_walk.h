// The checksum engine's walk, shared by its algorithm files and by nothing
// else: the data stream of a record's range (in-word reversal, byte
// skipping) produced in spans, with every stretch of whole absent words
// handed over as one run of zeros, and the record of undefined bytes met.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>

#include "image/ck_spec.h"
#include "image/hex_errno.h"
#include "image/hexdata.h"

namespace ckwalk {

// Absent rows and runs of zeros fed to a hash come from here, in pieces
// large enough to go to the hash without being gathered first.
inline constexpr uint8_t kZeros[1 << 16] = {};

// A hash takes every byte of its range, absent ones too; past this many
// bytes the range is refused before any work.
inline constexpr uint64_t kMaxHashBytes = uint64_t(1) << 32;

// Undefined bytes met during a walk: the first one in walk order, the lowest
// and the highest (see the header).
struct undef_log {
  bool any = false;
  uint64_t first = 0, lo = 0, hi = 0;

  void note(uint64_t f, uint64_t l, uint64_t h) { // f first in walk order, l <= f <= h
    if (!any) {
      any = true;
      first = f;
      lo = l;
      hi = h;
      return;
    }
    lo = std::min(lo, l);
    hi = std::max(hi, h);
  }
  void span(uint64_t a, uint64_t b) { note(a, a, b); } // a..b in walk order, a <= b
  void record(bool skipped) const {
    if (!any)
      return;
    hex_setUndefAddr(first, skipped, 0);
    if (lo != first)
      hex_setUndefAddr(lo, skipped, 0);
    if (hi != first && hi != lo)
      hex_setUndefAddr(hi, skipped, 0);
  }
};

// Per-address reads with the last row kept at hand.
struct byte_reader {
  const hexdata *h;
  uint64_t row = ~uint64_t(0);
  const hex_row *r = nullptr;
  bool first = true;

  bool get(uint64_t a, uint8_t *b) {
    if (first || hex_rowOf(a) != row) {
      first = false;
      row = hex_rowOf(a);
      r = hex_getRow(h, row);
    }
    const unsigned c = unsigned(a & 0xFF);
    if (r && plane_bit(r->present, c)) {
      *b = r->data[c];
      return true;
    }
    return false;
  }
};

inline bool skipped(const ckspec *s, uint64_t a) {
  return s->skipWordWidth && a % s->skipWordWidth >= s->skipWordWidth - s->skipBytes;
}

// Bytes per reversal word; 1 without reversal.
inline uint64_t wordWidth(const ckspec *s) { return s->revWordWidth ? s->revWordWidth : 1; }

// The address a byte is read from: mirrored inside its aligned R-byte word.
inline uint64_t mirrored(const ckspec *s, uint64_t a) {
  const uint64_t r = s->revWordWidth;
  return r ? a + (r - 1) - 2 * (a % r) : a;
}

// One walk address of a non-additive algorithm: false when it is skipped,
// else its byte (0 where undefined, which is logged).
struct stream_reader {
  const ckspec *s;
  byte_reader bytes;
  undef_log *undef;

  bool at(uint64_t a, uint8_t *b) {
    const uint64_t from = mirrored(s, a);
    if (skipped(s, from))
      return false;
    if (!bytes.get(from, b)) {
      *b = 0;
      undef->span(from, from);
    }
    return true;
  }
};

// ---- counting the kept addresses of a run of absent words ---------------------

// Addresses f0..f1 that are not skipped and, for parity 0 or 1, have that
// parity (-1: either). Never asked for all 2^64 addresses at once.
inline uint64_t keptIn(const ckspec *s, uint64_t f0, uint64_t f1, int parity) {
  const uint64_t S = s->skipWordWidth;
  if (!S && parity < 0)
    return f1 - f0 + 1;
  // Which addresses are kept repeats every Q addresses.
  const uint64_t Q = !S ? 2 : parity < 0 || S % 2 == 0 ? S : 2 * S;
  const uint64_t word = S ? S : Q, keep = S ? S - s->skipBytes : Q;
  // Kept addresses in 0..r, r < Q: the first `keep` of each skip word.
  auto head = [&](uint64_t r) {
    uint64_t n = 0;
    for (uint64_t b = 0; b <= r; b += word) {
      const uint64_t len = std::min(r - b + 1, keep);
      n += parity < 0 ? len : (len + ((uint64_t(parity) ^ b) & 1 ? 0 : 1)) / 2;
    }
    return n;
  };
  auto upTo = [&](uint64_t x) { return x / Q * head(Q - 1) + head(x % Q); };
  return upTo(f1) - (f0 ? upTo(f0 - 1) : 0);
}

// Walk addresses a0..a1 (inside whole reversal words) whose bytes are not
// skipped and, for parity 0 or 1, that have that parity. A piece of a word
// reads a piece of the same word backwards, and a walk address is odd when
// its mirror has the word width's parity.
inline uint64_t keptWalk(const ckspec *s, uint64_t a0, uint64_t a1, int parity) {
  const uint64_t R = wordWidth(s);
  const int p = parity < 0 ? -1 : parity ^ int((R - 1) & 1);
  if (R == 1)
    return keptIn(s, a0, a1, p);
  const uint64_t w0 = a0 - a0 % R, w1 = a1 - a1 % R;
  if (w0 == w1)
    return keptIn(s, mirrored(s, a1), mirrored(s, a0), p);
  uint64_t n = keptIn(s, w0, mirrored(s, a0), p) + keptIn(s, mirrored(s, a1), w1 + R - 1, p);
  if (w1 - w0 > R)
    n += keptIn(s, w0 + R, w1 - 1, p);
  return n;
}

// The lowest and the highest kept address of f0..f1; false when none is.
inline bool firstKept(const ckspec *s, uint64_t f0, uint64_t f1, uint64_t *out) {
  const uint64_t S = s->skipWordWidth;
  const uint64_t d = !S || f0 % S < S - s->skipBytes ? 0 : S - f0 % S;
  *out = f0 + d;
  return d <= f1 - f0;
}
inline bool lastKept(const ckspec *s, uint64_t f0, uint64_t f1, uint64_t *out) {
  const uint64_t S = s->skipWordWidth;
  const uint64_t d = !S || f1 % S < S - s->skipBytes ? 0 : f1 % S - (S - s->skipBytes) + 1;
  *out = f1 - d;
  return d <= f1 - f0;
}

// Logs the undefined bytes of the whole absent words a0..a1: the kept ones;
// the first in walk order is the highest kept one of the first word that
// has any, since a word is read backwards.
inline void logAbsent(const ckspec *s, uint64_t a0, uint64_t a1, undef_log *undef) {
  uint64_t lo, hi, first;
  if (!firstKept(s, a0, a1, &lo))
    return;
  (void)lastKept(s, a0, a1, &hi);
  const uint64_t w = lo - lo % wordWidth(s);
  (void)lastKept(s, w, w + wordWidth(s) - 1, &first);
  undef->note(first, lo, hi);
}

// Walks the walk addresses s->range.start..last in order. A stretch of whole
// reversal words (of any addresses, without reversal) where no byte is
// present has its undefined bytes logged and goes to zeros(a0, a1), at most
// 2^63 addresses at a time; everything else goes to bytes(a0, a1), a row and
// the rest of the word it ends in at a time. Untouched space costs one look-up
// in the image's directory.
template <class Bytes, class Zeros>
void walkRuns(const hexdata *h, const ckspec *s, uint64_t last, undef_log *undef, Bytes bytes,
              Zeros zeros) {
  const uint64_t R = wordWidth(s);
  // The end of the last whole word that ends by last, if one does (the top
  // of the address space may cut a word short).
  const bool anyWhole = last % R == R - 1 || last >= R;
  const uint64_t wholeEnd = last % R == R - 1 ? last : last - last % R - 1;
  for (uint64_t a = s->range.start;;) {
    if (a % R == 0 && anyWhole && a <= wholeEnd && !hex_getRow(h, hex_rowOf(a))) {
      uint64_t p;
      const bool data = hex_nextPresent(h, a, &p) && p <= wholeEnd;
      if (!data || p - p % R > a) {
        const uint64_t z = data ? p - p % R - 1 : wholeEnd;
        logAbsent(s, a, z, undef);
        if (z - a == ~uint64_t(0)) {
          zeros(a, a + (z - a) / 2);
          zeros(a + (z - a) / 2 + 1, z);
        } else {
          zeros(a, z);
        }
        if (z == last)
          return;
        a = z + 1;
        continue;
      }
    }
    uint64_t b = std::min(a | 0xFF, last);
    const uint64_t w = b - b % R;
    b = last - w < R - 1 ? last : w + R - 1;
    bytes(a, b);
    if (b == last)
      return;
    a = b + 1;
  }
}

// Feeds the stream of s's range to feed(const uint8_t *, size_t) in spans
// and its runs of absent bytes to zeros(n), n stream bytes of 0.
template <class Feed, class Zeros>
void walkStream(const hexdata *h, const ckspec *s, undef_log *undef, Feed feed, Zeros zeros) {
  auto absent = [&](uint64_t a0, uint64_t a1) { zeros(keptWalk(s, a0, a1, -1)); };
  if (s->revWordWidth == 0 && s->skipWordWidth == 0) {
    walkRuns(h, s, s->range.end, undef, [&](uint64_t a, uint64_t last) {
      const unsigned c0 = unsigned(a & 0xFF), n = unsigned(last - a) + 1;
      const hex_row *r = hex_getRow(h, hex_rowOf(a));
      if (!r) {
        feed(kZeros, n);
        undef->span(a, last);
        return;
      }
      feed(r->data + c0, n);
      const unsigned run = plane_next(r->present, c0, c0 + n - 1, false) - c0;
      if (run < n) {
        unsigned c = c0 + n - 1;
        while (plane_bit(r->present, c))
          --c;
        undef->span(a + run, (a & ~uint64_t(0xFF)) + c);
      }
    }, absent);
    return;
  }
  stream_reader in{s, {h}, undef};
  uint8_t buf[256];
  unsigned k = 0;
  walkRuns(h, s, s->range.end, undef,
           [&](uint64_t a0, uint64_t a1) {
             for (uint64_t a = a0;; ++a) {
               if (in.at(a, &buf[k]) && ++k == sizeof buf) {
                 feed(buf, k);
                 k = 0;
               }
               if (a == a1)
                 return;
             }
           },
           [&](uint64_t a0, uint64_t a1) {
             if (k)
               feed(buf, k);
             k = 0;
             absent(a0, a1);
           });
  if (k)
    feed(buf, k);
}

} // namespace ckwalk
