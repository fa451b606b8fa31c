#include "common/shahash.h"

#include <cstring>

namespace {

inline uint32_t rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }
inline uint32_t rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

inline uint32_t load32be(const uint8_t *p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline void store32be(uint8_t *p, uint32_t v) {
  p[0] = uint8_t(v >> 24);
  p[1] = uint8_t(v >> 16);
  p[2] = uint8_t(v >> 8);
  p[3] = uint8_t(v);
}

// ---- SHA-1 ------------------------------------------------------------------

void sha1Blocks(uint32_t h[5], const uint8_t *p, size_t blocks) {
  for (; blocks--; p += 64) {
    uint32_t w[80];
    for (int t = 0; t < 16; ++t)
      w[t] = load32be(p + 4 * t);
    for (int t = 16; t < 80; ++t)
      w[t] = rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    auto step = [&](uint32_t f, uint32_t k, uint32_t wt) {
      const uint32_t t = rotl(a, 5) + f + e + k + wt;
      e = d;
      d = c;
      c = rotl(b, 30);
      b = a;
      a = t;
    };
    for (int t = 0; t < 20; ++t)
      step((b & c) | (~b & d), 0x5A827999, w[t]);
    for (int t = 20; t < 40; ++t)
      step(b ^ c ^ d, 0x6ED9EBA1, w[t]);
    for (int t = 40; t < 60; ++t)
      step((b & c) | (b & d) | (c & d), 0x8F1BBCDC, w[t]);
    for (int t = 60; t < 80; ++t)
      step(b ^ c ^ d, 0xCA62C1D6, w[t]);
    h[0] += a;
    h[1] += b;
    h[2] += c;
    h[3] += d;
    h[4] += e;
  }
}

// ---- SHA-256 ----------------------------------------------------------------

constexpr uint32_t K256[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4,
    0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
    0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f,
    0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7,
    0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc,
    0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
    0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116,
    0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
    0xc67178f2};

// Eight rounds per pass with the working variables renamed instead of
// moved, which keeps them in registers.
#define SHA256_ROUND(a, b, c, d, e, f, g, h, i)                                                 \
  do {                                                                                          \
    const uint32_t t1 =                                                                         \
        h + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + (g ^ (e & (f ^ g))) + K256[i] + w[i];    \
    const uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) | (c & (a | b)));   \
    d += t1;                                                                                    \
    h = t1 + t2;                                                                                \
  } while (0)

void sha256Blocks(uint32_t hs[8], const uint8_t *p, size_t blocks) {
  for (; blocks--; p += 64) {
    uint32_t w[64];
    for (int t = 0; t < 16; ++t)
      w[t] = load32be(p + 4 * t);
    for (int t = 16; t < 64; ++t) {
      const uint32_t s0 = rotr(w[t - 15], 7) ^ rotr(w[t - 15], 18) ^ (w[t - 15] >> 3);
      const uint32_t s1 = rotr(w[t - 2], 17) ^ rotr(w[t - 2], 19) ^ (w[t - 2] >> 10);
      w[t] = w[t - 16] + s0 + w[t - 7] + s1;
    }
    uint32_t a = hs[0], b = hs[1], c = hs[2], d = hs[3], e = hs[4], f = hs[5], g = hs[6],
             h = hs[7];
    for (int i = 0; i < 64; i += 8) {
      SHA256_ROUND(a, b, c, d, e, f, g, h, i);
      SHA256_ROUND(h, a, b, c, d, e, f, g, i + 1);
      SHA256_ROUND(g, h, a, b, c, d, e, f, i + 2);
      SHA256_ROUND(f, g, h, a, b, c, d, e, i + 3);
      SHA256_ROUND(e, f, g, h, a, b, c, d, i + 4);
      SHA256_ROUND(d, e, f, g, h, a, b, c, i + 5);
      SHA256_ROUND(c, d, e, f, g, h, a, b, i + 6);
      SHA256_ROUND(b, c, d, e, f, g, h, a, i + 7);
    }
    hs[0] += a;
    hs[1] += b;
    hs[2] += c;
    hs[3] += d;
    hs[4] += e;
    hs[5] += f;
    hs[6] += g;
    hs[7] += h;
  }
}

// ---- shared buffering and padding ------------------------------------------

template <class Ctx>
void addBytes(Ctx *c, const void *data, size_t n, void (*blocksFn)(uint32_t *, const uint8_t *, size_t)) {
  const uint8_t *p = static_cast<const uint8_t *>(data);
  c->length += n;
  if (c->used) {
    const size_t take = n < 64 - c->used ? n : 64 - c->used;
    std::memcpy(c->block + c->used, p, take);
    c->used += unsigned(take);
    p += take;
    n -= take;
    if (c->used < 64)
      return;
    blocksFn(c->h, c->block, 1);
    c->used = 0;
  }
  if (n >= 64) {
    blocksFn(c->h, p, n / 64);
    p += n / 64 * 64;
    n %= 64;
  }
  std::memcpy(c->block, p, n);
  c->used = unsigned(n);
}

// 0x80, zeros to 56 mod 64, then the length in bits, big-endian.
template <class Ctx>
void pad(Ctx *c, void (*blocksFn)(uint32_t *, const uint8_t *, size_t)) {
  const uint64_t bits = c->length * 8;
  c->block[c->used++] = 0x80;
  if (c->used > 56) {
    std::memset(c->block + c->used, 0, 64 - c->used);
    blocksFn(c->h, c->block, 1);
    c->used = 0;
  }
  std::memset(c->block + c->used, 0, 56 - c->used);
  for (int i = 0; i < 8; ++i)
    c->block[56 + i] = uint8_t(bits >> (56 - 8 * i));
  blocksFn(c->h, c->block, 1);
  c->used = 0;
}

} // namespace

void sha1_init(sha1_ctx *c) {
  static constexpr uint32_t iv[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  std::memcpy(c->h, iv, sizeof iv);
  c->length = 0;
  c->used = 0;
}

void sha1_add(sha1_ctx *c, const void *data, size_t n) { addBytes(c, data, n, sha1Blocks); }

void sha1_finish(sha1_ctx *c, uint8_t digest[SHA1_DIGEST_BYTES]) {
  pad(c, sha1Blocks);
  for (int i = 0; i < 5; ++i)
    store32be(digest + 4 * i, c->h[i]);
}

void sha256_init(sha256_ctx *c) {
  static constexpr uint32_t iv[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                     0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::memcpy(c->h, iv, sizeof iv);
  c->length = 0;
  c->used = 0;
}

void sha256_add(sha256_ctx *c, const void *data, size_t n) { addBytes(c, data, n, sha256Blocks); }

void sha256_finish(sha256_ctx *c, uint8_t digest[SHA256_DIGEST_BYTES]) {
  pad(c, sha256Blocks);
  for (int i = 0; i < 8; ++i)
    store32be(digest + 4 * i, c->h[i]);
}
