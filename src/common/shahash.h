// SHA-1 and SHA-256 (FIPS 180-4): incremental hashing with an initialise /
// add-bytes / finish interface, so a caller can feed a message in pieces of
// any size. Digests come out in the standard byte order (the first word's
// most significant byte first). No allocation; a context is a plain value.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t SHA1_DIGEST_BYTES = 20;
constexpr size_t SHA256_DIGEST_BYTES = 32;

struct sha1_ctx {
  uint32_t h[5];
  uint64_t length; // bytes added so far
  uint8_t block[64];
  unsigned used; // bytes waiting in block
};

struct sha256_ctx {
  uint32_t h[8];
  uint64_t length;
  uint8_t block[64];
  unsigned used;
};

void sha1_init(sha1_ctx *c);
void sha1_add(sha1_ctx *c, const void *data, size_t n);
void sha1_finish(sha1_ctx *c, uint8_t digest[SHA1_DIGEST_BYTES]); // c must be initialised again

void sha256_init(sha256_ctx *c);
void sha256_add(sha256_ctx *c, const void *data, size_t n);
void sha256_finish(sha256_ctx *c, uint8_t digest[SHA256_DIGEST_BYTES]);
