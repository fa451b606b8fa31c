// The checksum engine. The data stream is produced in spans: where no
// reversal or skipping applies, whole rows go to the algorithm straight from
// the image (an absent slot holds 0, which is what an undefined byte is fed
// as); otherwise the mapped bytes are gathered into a small buffer first.
// Untouched address space is never walked: a stretch of whole reversal words
// that holds no byte is a run of zeros, which each algorithm takes in one
// step (the CRCs through zero-run matrices, the Fletcher sums in closed
// form, a hash from a static block of zeros), so the cost follows the rows
// that hold data, not the length of the range. The CRCs process eight bytes
// per step from tables built for the record's polynomial and width.
#include "image/hexdata_checksum.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "common/check.h"
#include "common/shahash.h"
#include "image/hex_errno.h"

namespace {

// Absent rows and runs of zeros fed to a hash come from here, in pieces
// large enough to go to the hash without being gathered first.
constexpr uint8_t kZeros[1 << 16] = {};

// A hash takes every byte of its range, absent ones too; past this many
// bytes the range is refused before any work.
constexpr uint64_t kMaxHashBytes = uint64_t(1) << 32;

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
uint64_t keptIn(const ckspec *s, uint64_t f0, uint64_t f1, int parity) {
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
uint64_t keptWalk(const ckspec *s, uint64_t a0, uint64_t a1, int parity) {
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
bool firstKept(const ckspec *s, uint64_t f0, uint64_t f1, uint64_t *out) {
  const uint64_t S = s->skipWordWidth;
  const uint64_t d = !S || f0 % S < S - s->skipBytes ? 0 : S - f0 % S;
  *out = f0 + d;
  return d <= f1 - f0;
}
bool lastKept(const ckspec *s, uint64_t f0, uint64_t f1, uint64_t *out) {
  const uint64_t S = s->skipWordWidth;
  const uint64_t d = !S || f1 % S < S - s->skipBytes ? 0 : f1 % S - (S - s->skipBytes) + 1;
  *out = f1 - d;
  return d <= f1 - f0;
}

// Logs the undefined bytes of the whole absent words a0..a1: the kept ones;
// the first in walk order is the highest kept one of the first word that
// has any, since a word is read backwards.
void logAbsent(const ckspec *s, uint64_t a0, uint64_t a1, undef_log *undef) {
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

// ---- CRC tables ---------------------------------------------------------------

inline uint64_t load64le(const uint8_t *p) {
  uint64_t v;
  std::memcpy(&v, p, 8);
  return v;
}
inline uint64_t load64be(const uint8_t *p) { return __builtin_bswap64(load64le(p)); }

// t[k][i]: the register change of byte i followed by k zero bytes.
struct crc_tables {
  uint64_t t[8][256];
};

// Most significant bit first, the register kept in the top bits of 64.
void msbTables(crc_tables *T, uint64_t alignedPoly) {
  for (unsigned i = 0; i < 256; ++i) {
    uint64_t r = uint64_t(i) << 56;
    for (int b = 0; b < 8; ++b)
      r = (r >> 63) ? (r << 1) ^ alignedPoly : r << 1;
    T->t[0][i] = r;
  }
  for (int k = 1; k < 8; ++k)
    for (unsigned i = 0; i < 256; ++i)
      T->t[k][i] = (T->t[k - 1][i] << 8) ^ T->t[0][T->t[k - 1][i] >> 56];
}

void lsbTables(crc_tables *T, uint64_t rpoly) {
  for (unsigned i = 0; i < 256; ++i) {
    uint64_t r = i;
    for (int b = 0; b < 8; ++b)
      r = (r & 1) ? (r >> 1) ^ rpoly : r >> 1;
    T->t[0][i] = r;
  }
  for (int k = 1; k < 8; ++k)
    for (unsigned i = 0; i < 256; ++i)
      T->t[k][i] = (T->t[k - 1][i] >> 8) ^ T->t[0][T->t[k - 1][i] & 0xFF];
}

uint64_t msbBytes(const crc_tables &T, uint64_t r, const uint8_t *p, size_t n) {
  for (; n >= 8; p += 8, n -= 8) {
    r ^= load64be(p);
    r = T.t[7][r >> 56] ^ T.t[6][(r >> 48) & 0xFF] ^ T.t[5][(r >> 40) & 0xFF] ^
        T.t[4][(r >> 32) & 0xFF] ^ T.t[3][(r >> 24) & 0xFF] ^ T.t[2][(r >> 16) & 0xFF] ^
        T.t[1][(r >> 8) & 0xFF] ^ T.t[0][r & 0xFF];
  }
  for (; n; ++p, --n)
    r = (r << 8) ^ T.t[0][(r >> 56) ^ *p];
  return r;
}

uint64_t lsbBytes(const crc_tables &T, uint64_t r, const uint8_t *p, size_t n) {
  for (; n >= 8; p += 8, n -= 8) {
    r ^= load64le(p);
    r = T.t[7][r & 0xFF] ^ T.t[6][(r >> 8) & 0xFF] ^ T.t[5][(r >> 16) & 0xFF] ^
        T.t[4][(r >> 24) & 0xFF] ^ T.t[3][(r >> 32) & 0xFF] ^ T.t[2][(r >> 40) & 0xFF] ^
        T.t[1][(r >> 48) & 0xFF] ^ T.t[0][r >> 56];
  }
  for (; n; ++p, --n)
    r = (r >> 8) ^ T.t[0][(r ^ *p) & 0xFF];
  return r;
}

// The register after n zero bytes. A zero byte changes the register
// linearly over GF(2), so 2^k of them are a 64x64 bit matrix, each the square
// of the one before; a run takes the matrices of its length's set bits, at
// most 64 matrix-vector products. The matrices are built as far as the
// longest run needs.
class zero_run {
public:
  template <class Step>
  explicit zero_run(Step zeroByte) {
    for (unsigned i = 0; i < 64; ++i)
      m_[0][i] = zeroByte(uint64_t(1) << i);
  }
  uint64_t operator()(uint64_t r, uint64_t n) {
    for (unsigned k = 0; n; ++k, n >>= 1) {
      if (k == built_) {
        for (unsigned i = 0; i < 64; ++i)
          m_[k][i] = times(m_[k - 1], m_[k - 1][i]);
        ++built_;
      }
      if (n & 1)
        r = times(m_[k], r);
    }
    return r;
  }

private:
  static uint64_t times(const uint64_t *m, uint64_t v) {
    uint64_t r = 0;
    for (; v; v &= v - 1)
      r ^= m[__builtin_ctzll(v)];
    return r;
  }
  uint64_t m_[64][64];
  unsigned built_ = 1;
};

// ---- Fletcher sums over runs of zeros -------------------------------------------

// Over a run of zeros a Fletcher sum's s1 stays as it is, so its s2 takes
// the step t -> fold(t + d(j)) again and again, fold(x) = (x & M) + (x >> m)
// with M = 2^m - 1, t staying below 2M. A fold keeps t mod M, so after j steps
// t's residue is (t0 + dSum(j)) mod M, dSum(j) being d(0..j-1) mod M; only
// which of its two values (r or r + M) t holds is open. t and t + M step to
// the same value unless r + d(j) ends in m zero bits, a tie, after which they
// are still M apart: so the last step that was no tie decides, else t0
// does. d repeats every `period` steps (0: no known period); ties that come
// round a whole period to the same residue reach back to step 0.
template <class D, class DSum>
uint64_t foldRun(uint64_t t0, uint64_t n, unsigned m, uint64_t period, D d, DSum dSum) {
  const uint64_t M = (uint64_t(1) << m) - 1;
  auto residue = [&](uint64_t j) { return (t0 % M + dSum(j)) % M; };
  bool high = t0 >= M;
  for (uint64_t i = n; i-- > 0;) {
    const uint64_t r = residue(i), x = r + d(i);
    if (x & M) {
      high = (x & M) + (x >> m) >= M;
      break;
    }
    if (period && n - i > period && residue(i + period) == r)
      break;
  }
  return residue(n) + (high ? M : 0);
}

// Steps after which the kept addresses of whole reversal words repeat, in
// stretches of `stretch` walk addresses; 0 when too many to matter.
uint64_t keptPeriod(const ckspec *s, uint64_t stretch) {
  if (!s->skipWordWidth)
    return 1;
  const uint64_t R = wordWidth(s), S = s->skipWordWidth, g = std::gcd(R, S);
  if (R / g > (uint64_t(1) << 40) / S)
    return 0;
  const uint64_t P = R / g * S;
  return P / std::gcd(P, stretch);
}

// ---- result bytes and storing ---------------------------------------------------

std::vector<uint8_t> numericResult(uint64_t value, uint32_t w, bool bigEndian) {
  std::vector<uint8_t> out(w);
  for (uint32_t i = 0; i < w; ++i)
    out[bigEndian ? w - 1 - i : i] = uint8_t(value >> (8 * i));
  return out;
}

std::vector<uint8_t> compute(const hexdata *h, const ckspec *s) {
  const uint32_t w = s->resultWidth;
  const bool big = s->bigEndianResult;
  if (s->algorithm == CK_SHA1 || s->algorithm == CK_SHA256) {
    std::vector<uint8_t> d(s->algorithm == CK_SHA1 ? 20 : 32);
    if (s->algorithm == CK_SHA1)
      checksumSHA1(h, s, d.data());
    else
      checksumSHA256(h, s, d.data());
    // A positive width asks for the digest the other way round.
    if (big)
      std::reverse(d.begin(), d.end());
    return d;
  }
  uint64_t value = 0;
  switch (s->algorithm) {
  case CK_CRC:
    value = checksumCRC(h, s);
    break;
  case CK_REFCRC:
    value = checksumRefCRC(h, s);
    break;
  case CK_FLETCHER8:
    value = checksumFletcher8(h, s);
    break;
  case CK_FLETCHER16:
    value = checksumFletcher16(h, s);
    break;
  default:
    value = checksumAdditive(h, s);
    break;
  }
  return numericResult(value, w, big);
}

// One byte of the result: an empty slot takes it, data already there is
// overwritten only with clobber, and otherwise must already be that byte.
bool storeResultByte(hexdata *h, const ckspec *s, uint64_t addr, uint8_t v) {
  const hex_row *r = hex_getRow(h, hex_rowOf(addr));
  const unsigned c = unsigned(addr & 0xFF);
  if (r && plane_bit(r->present, c)) {
    if (!s->policy.clobber) {
      if (r->data[c] == v)
        return true;
      hex_setAddrError(ECLASH, addr);
      return false;
    }
    if (!hex_forceByte(h, addr, v))
      return false;
  } else if (!hex_storeByte(h, addr, v)) {
    return false;
  }
  if (s->policy.preserve && !hex_preserveData(h, addr, addr, 1))
    return false;
  if (s->policy.owner && !hex_setNote(h, addr, addr, s->policy.owner))
    return false;
  return true;
}

} // namespace

uint64_t reflectBits(uint64_t data, unsigned nBits) {
  ROMWELD_ASSERT(nBits != 0);
  ROMWELD_ASSERT(nBits <= (sizeof data * 8));
  uint64_t out = 0;
  for (unsigned i = 0; i < nBits; ++i)
    if (data >> i & 1)
      out |= uint64_t(1) << (nBits - 1 - i);
  return out;
}

uint64_t checksumAdditive(const hexdata *h, const ckspec *s) {
  const unsigned n = unsigned(s->algorithm < 0 ? -s->algorithm : s->algorithm);
  const bool subtract = s->algorithm < 0;
  const uint64_t end = s->range.end;
  uint64_t sum = s->offset;
  undef_log undef;
  // Present runs are found a row at a time, untouched space is jumped.
  for (uint64_t a = s->range.start;;) {
    uint64_t p;
    if (!hex_nextPresent(h, a, &p) || p > end) {
      undef.span(a, end);
      break;
    }
    if (p > a)
      undef.span(a, p - 1);
    const hex_row *r = hex_getRow(h, hex_rowOf(p));
    const unsigned c0 = unsigned(p & 0xFF);
    const unsigned c1 = c0 + unsigned(std::min<uint64_t>(end - p, 255 - c0));
    const unsigned run = plane_next(r->present, c0, c1, false) - c0;
    for (unsigned i = 0; i < run; ++i) {
      const uint64_t at = p + i;
      if (skipped(s, at))
        continue;
      // Intended: the word's term is formed in 32 bits and sign-extended,
      // so a top byte of 0x80 or more in a 4-byte word subtracts 2^32.
      const int32_t term = int32_t(uint32_t(r->data[c0 + i]) << (8 * (at % n)));
      sum = subtract ? sum - uint64_t(int64_t(term)) : sum + uint64_t(int64_t(term));
    }
    const uint64_t last = p + run - 1;
    if (last == end)
      break;
    a = last + 1;
  }
  undef.record(true);
  return sum;
}

uint64_t checksumCRC(const hexdata *h, const ckspec *s) {
  const unsigned nBits = 8 * s->resultWidth, align = 64 - nBits;
  crc_tables T;
  msbTables(&T, s->poly << align);
  uint64_t r = s->offset << align;
  undef_log undef;
  // A zero byte entering is 0 at any bit, so every width takes the same
  // step over zeros.
  zero_run zeros([&T](uint64_t v) { return (v << 8) ^ T.t[0][v >> 56]; });
  auto absent = [&](uint64_t n) { r = zeros(r, n); };
  if (s->resultWidth <= 4) {
    walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { r = msbBytes(T, r, p, n); }, absent);
  } else {
    // Intended: for results of 5 to 8 bytes a byte enters the register at
    // bit 8W-40 (sign-extended from 32 bits for 8 bytes), not at its top.
    walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) {
      for (size_t i = 0; i < n; ++i) {
        r ^= uint64_t(p[i]) << 24;
        if (nBits == 64 && (p[i] & 0x80))
          r ^= 0xFFFFFFFF00000000u;
        r = (r << 8) ^ T.t[0][r >> 56];
      }
    }, absent);
  }
  undef.record(false);
  return (r >> align) ^ s->xorValue;
}

uint64_t checksumRefCRC(const hexdata *h, const ckspec *s) {
  crc_tables T;
  lsbTables(&T, reflectBits(s->poly, 8 * s->resultWidth));
  // Intended: the initial register is neither reflected nor cut to the
  // width; its upper bits move down into the result as bytes go in.
  uint64_t r = s->offset;
  undef_log undef;
  zero_run zeros([&T](uint64_t v) { return (v >> 8) ^ T.t[0][v & 0xFF]; });
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { r = lsbBytes(T, r, p, n); },
             [&](uint64_t n) { r = zeros(r, n); });
  undef.record(false);
  return r ^ s->xorValue;
}

uint64_t checksumFletcher8(const hexdata *h, const ckspec *s) {
  undef_log undef;
  // Intended: the count is taken in 32 bits.
  const uint32_t count = uint32_t(s->range.end - s->range.start + 1);
  const uint64_t start = s->range.start;
  auto fold = [](uint64_t v) { return (v & 0xFF) + (v >> 8); };
  uint64_t s1 = 0xFF, s2 = 0xFF;
  if (count > 0) {
    const uint64_t last = start + count - 1;
    // Both sums fold after every 20 walk addresses and after the last.
    auto folds = [&](uint64_t a) { return (a - start) % 20 == 19 || a == last; };
    stream_reader in{s, {h}, &undef};
    auto bytes = [&](uint64_t a0, uint64_t a1) {
      for (uint64_t a = a0;; ++a) {
        uint8_t b;
        if (in.at(a, &b)) {
          s1 += b;
          s2 += s1;
        }
        if (folds(a)) {
          s1 = fold(s1);
          s2 = fold(s2);
        }
        if (a == a1)
          return;
      }
    };
    // Zeros add s1 to s2 once per kept address: up to the next fold, then
    // in whole stretches of 20, then the rest. s1 settles after two folds.
    auto zeros = [&](uint64_t a0, uint64_t a1) {
      uint64_t a = a0;
      auto take = [&](uint64_t n) {
        s2 += keptWalk(s, a, a + n - 1, -1) * s1;
        a += n;
        if (folds(a - 1)) {
          s1 = fold(s1);
          s2 = fold(s2);
        }
      };
      if (const uint64_t head = std::min(a1 - a0 + 1, (20 - (a0 - start) % 20) % 20))
        take(head);
      uint64_t stretches = (a1 - a + 1) / 20;
      for (int k = 0; k < 2 && stretches; ++k, --stretches)
        take(20);
      if (stretches) {
        const uint64_t base = a, v = s1;
        s2 = foldRun(
            s2, stretches, 8, keptPeriod(s, 20),
            [&](uint64_t j) { return keptWalk(s, base + 20 * j, base + 20 * j + 19, -1) * v; },
            [&](uint64_t j) { return j ? keptWalk(s, base, base + 20 * j - 1, -1) % 255 * v : 0; });
        a += 20 * stretches;
      }
      if (a1 - a + 1)
        take(a1 - a + 1);
    };
    walkRuns(h, s, last, &undef, bytes, zeros);
  }
  s1 = fold(s1);
  s2 = fold(s2);
  undef.record(false);
  return (s2 << 8) | s1;
}

uint64_t checksumFletcher16(const hexdata *h, const ckspec *s) {
  undef_log undef;
  stream_reader in{s, {h}, &undef};
  uint64_t s1 = 0, s2 = 0;
  uint64_t words = 0;
  auto fold = [&] {
    s1 = (s1 & 0xFFFF) + ((s1 >> 16) & 0xFFFF);
    s2 = (s2 & 0xFFFF) + ((s2 >> 16) & 0xFFFF);
  };
  auto bytes = [&](uint64_t a0, uint64_t a1) {
    for (uint64_t a = a0;; ++a) {
      uint8_t b;
      if (in.at(a, &b)) {
        // Intended: the byte's half of the word follows the walk address,
        // not the address it was read from.
        s1 += uint64_t(b) << (8 * (a & 1));
        if (a & 1) {
          s2 += s1;
          if (++words == 256) {
            fold();
            words = 0;
          }
        }
      }
      if (a == a1)
        return;
    }
  };
  // Zeros add s1 to s2 once per word they end (a kept odd walk address): up
  // to the next fold, then in blocks of 256 words, then the rest. s1 settles
  // after two folds.
  auto zeros = [&](uint64_t a0, uint64_t a1) {
    uint64_t n = keptWalk(s, a0, a1, 1);
    const uint64_t head = std::min(n, 256 - words);
    s2 += head * s1;
    words += head;
    n -= head;
    if (words == 256) {
      fold();
      words = 0;
    }
    uint64_t blocks = n / 256;
    for (int k = 0; k < 2 && blocks; ++k, --blocks) {
      s2 += 256 * s1;
      fold();
    }
    if (blocks) {
      const uint64_t d = 256 * s1;
      s2 = foldRun(s2, blocks, 16, 1, [d](uint64_t) { return d; },
                   [d](uint64_t j) { return j % 0xFFFF * (d % 0xFFFF); });
    }
    s2 += n % 256 * s1;
    words += n % 256;
  };
  walkRuns(h, s, s->range.end, &undef, bytes, zeros);
  if (words)
    fold();
  undef.record(false);
  return (((s2 & 0xFFFF) + (s2 >> 16)) << 16) | ((s1 + (s1 >> 16)) & 0xFFFF);
}

namespace {

// Runs of zeros for a hash, in pieces of the static zero block.
auto zeroHash(sha_ctx *c) {
  return [c](uint64_t n) {
    for (; n; n -= std::min<uint64_t>(n, sizeof kZeros))
      sha_add(c, kZeros, size_t(std::min<uint64_t>(n, sizeof kZeros)));
  };
}

} // namespace

void checksumSHA1(const hexdata *h, const ckspec *s, uint8_t digest[20]) {
  sha_ctx c(SHA_1);
  undef_log undef;
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { sha_add(&c, p, n); }, zeroHash(&c));
  undef.record(false);
  sha_finish(&c, digest);
}

void checksumSHA256(const hexdata *h, const ckspec *s, uint8_t digest[32]) {
  sha_ctx c(SHA_256);
  undef_log undef;
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { sha_add(&c, p, n); }, zeroHash(&c));
  undef.record(false);
  sha_finish(&c, digest);
}

bool hex_checksum(hexdata *h, const ckspec *s, std::vector<uint8_t> *resultOut) {
  if (!h || !s || (!resultOut && !s->hasResultDest)) {
    hex_setError(ENULL);
    return false;
  }
  if (!s->range.hasStart) {
    hex_setError(ENODATA);
    return false;
  }
  if (s->skipWordWidth != 0 && s->skipBytes >= s->skipWordWidth) {
    hex_setError(EBADSKIP);
    return false;
  }
  if (!ckspec_isKnownAlgorithm(s->algorithm)) {
    hex_setError(EUNKNOWNTYPE);
    return false;
  }
  if (ckspec_isCRC(s->algorithm) && s->poly == 0) {
    hex_setError(EBADPOLY);
    return false;
  }
  if ((s->algorithm == CK_SHA1 || s->algorithm == CK_SHA256) &&
      s->range.end - s->range.start >= kMaxHashBytes) {
    hex_setError(EARG);
    return false;
  }
  ROMWELD_ASSERT(s->resultWidth >= ckspec_getMinWidth(s->algorithm) &&
                 s->resultWidth <= ckspec_getMaxWidth(s->algorithm));
  ROMWELD_ASSERT(s->codeBase > 0);
  if (s->hasResultDest) {
    // The result's last byte must lie in the address space: past the top it
    // would wrap round to address 0.
    const uint64_t last = ckspec_getTotalResultBytes(s) - 1;
    if (last > UINT64_MAX - s->resultDest) {
      hex_setError(EBELOWZERO);
      return false;
    }
    const uint64_t from = s->resultDest, to = from + last;
    if (!hex_takeRows(h, hex_rowOf(to) - hex_rowOf(from) + 1 - hex_rowsHeld(h, from, to)))
      return false;
  }

  const uint32_t mark = hex_errorCount();
  const std::vector<uint8_t> result = compute(h, s);
  if (resultOut)
    *resultOut = result;
  if (s->hasResultDest) {
    std::vector<uint8_t> stored;
    for (uint32_t i = 0; i < result.size(); ++i) {
      stored.push_back(result[i]);
      if ((i + 1) % s->codeBase == 0)
        stored.insert(stored.end(), s->codeBytes.begin(), s->codeBytes.end());
    }
    for (size_t i = 0; i < stored.size(); ++i)
      if (!storeResultByte(h, s, s->resultDest + i, stored[i]))
        return false;
  }
  for (uint32_t i = mark; i < hex_errorCount(); ++i)
    if (hex_errorAt(i).code != EUNDEFADDR)
      return false;
  return hex_errno() == EOK || hex_errno() == EUNDEFADDR || hex_errorsDropped() == 0;
}
