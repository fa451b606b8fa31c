// The checksum engine. The data stream is produced in spans: where no
// reversal or skipping applies, whole rows go to the algorithm straight from
// the image (an absent slot holds 0, which is what an undefined byte is fed
// as); otherwise the mapped bytes are gathered into a small buffer first.
// The CRCs process eight bytes per step from tables built for the record's
// polynomial and width.
#include "image/hexdata_checksum.h"

#include <algorithm>
#include <cstring>

#include "common/check.h"
#include "common/shahash.h"
#include "image/hex_errno.h"

namespace {

constexpr uint8_t kZeros[256] = {};

// A hash takes every byte of its range, absent ones too; past this many
// bytes the range is refused before any work.
constexpr uint64_t kMaxHashBytes = uint64_t(1) << 32;

// Undefined bytes met during a walk: the first one in walk order, the lowest
// and the highest (see the header).
struct undef_log {
  bool any = false;
  uint64_t first = 0, lo = 0, hi = 0;

  void span(uint64_t a, uint64_t b) { // a..b in walk order, a <= b
    if (!any) {
      any = true;
      first = lo = a;
      hi = b;
      return;
    }
    lo = std::min(lo, a);
    hi = std::max(hi, b);
  }
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

// Feeds the stream of s's range to feed(const uint8_t *, size_t) in spans.
template <class Feed>
void walkStream(const hexdata *h, const ckspec *s, undef_log *undef, Feed feed) {
  const uint64_t end = s->range.end;
  if (s->revWordWidth == 0 && s->skipWordWidth == 0) {
    for (uint64_t a = s->range.start;;) {
      const uint64_t last = std::min(a | 0xFF, end);
      const unsigned c0 = unsigned(a & 0xFF), n = unsigned(last - a) + 1;
      const hex_row *r = hex_getRow(h, hex_rowOf(a));
      if (!r) {
        feed(kZeros, n);
        undef->span(a, last);
      } else {
        feed(r->data + c0, n);
        const unsigned run = plane_next(r->present, c0, c0 + n - 1, false) - c0;
        if (run < n) {
          unsigned c = c0 + n - 1;
          while (plane_bit(r->present, c))
            --c;
          undef->span(a + run, (a & ~uint64_t(0xFF)) + c);
        }
      }
      if (last == end)
        return;
      a = last + 1;
    }
  }
  stream_reader in{s, {h}, undef};
  uint8_t buf[256];
  unsigned k = 0;
  for (uint64_t a = s->range.start;; ++a) {
    if (in.at(a, &buf[k]) && ++k == sizeof buf) {
      feed(buf, k);
      k = 0;
    }
    if (a == end)
      break;
  }
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
  if (s->resultWidth <= 4) {
    walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { r = msbBytes(T, r, p, n); });
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
    });
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
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { r = lsbBytes(T, r, p, n); });
  undef.record(false);
  return r ^ s->xorValue;
}

uint64_t checksumFletcher8(const hexdata *h, const ckspec *s) {
  undef_log undef;
  stream_reader in{s, {h}, &undef};
  // Intended: the count is taken in 32 bits.
  uint32_t count = uint32_t(s->range.end - s->range.start + 1);
  uint64_t s1 = 0xFF, s2 = 0xFF, a = s->range.start;
  while (count > 0) {
    const uint32_t len = std::min<uint32_t>(count, 20);
    count -= len;
    for (uint32_t i = 0; i < len; ++i, ++a) {
      uint8_t b;
      if (in.at(a, &b)) {
        s1 += b;
        s2 += s1;
      }
    }
    s1 = (s1 & 0xFF) + (s1 >> 8);
    s2 = (s2 & 0xFF) + (s2 >> 8);
  }
  s1 = (s1 & 0xFF) + (s1 >> 8);
  s2 = (s2 & 0xFF) + (s2 >> 8);
  undef.record(false);
  return (s2 << 8) | s1;
}

uint64_t checksumFletcher16(const hexdata *h, const ckspec *s) {
  undef_log undef;
  stream_reader in{s, {h}, &undef};
  uint64_t s1 = 0, s2 = 0;
  unsigned words = 0;
  auto fold = [&] {
    s1 = (s1 & 0xFFFF) + ((s1 >> 16) & 0xFFFF);
    s2 = (s2 & 0xFFFF) + ((s2 >> 16) & 0xFFFF);
  };
  for (uint64_t a = s->range.start;; ++a) {
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
    if (a == s->range.end)
      break;
  }
  if (words)
    fold();
  undef.record(false);
  return (((s2 & 0xFFFF) + (s2 >> 16)) << 16) | ((s1 + (s1 >> 16)) & 0xFFFF);
}

void checksumSHA1(const hexdata *h, const ckspec *s, uint8_t digest[20]) {
  sha_ctx c(SHA_1);
  undef_log undef;
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { sha_add(&c, p, n); });
  undef.record(false);
  sha_finish(&c, digest);
}

void checksumSHA256(const hexdata *h, const ckspec *s, uint8_t digest[32]) {
  sha_ctx c(SHA_256);
  undef_log undef;
  walkStream(h, s, &undef, [&](const uint8_t *p, size_t n) { sha_add(&c, p, n); });
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
