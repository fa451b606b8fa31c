// CRCs of the checksum engine: eight bytes per step from tables built for
// the record's polynomial and width, and a run of zero bytes in O(log n)
// steps through the "advance over 2^k zero bytes" matrices.
#include "image/hexdata_checksum.h"

#include "common/check.h"
#include "image/checksum_walk.h"

using namespace ckwalk;

namespace {

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
