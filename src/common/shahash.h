// SHA-1 and SHA-256 through the system's crypto library (libcrypto's EVP
// interface), fed in pieces of any size. Small pieces (an image row at a
// time) are gathered into large blocks before they reach the library, so a
// message fed row by row hashes as fast as one fed whole. Digests come out
// in the standard byte order (the first word's most significant byte
// first). A context that cannot be set up means the heap is exhausted:
// fatal message 296, as for any allocation.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t SHA1_DIGEST_BYTES = 20;
constexpr size_t SHA256_DIGEST_BYTES = 32;

enum sha_kind { SHA_1, SHA_256 };

struct evp_md_ctx_st;

struct sha_ctx {
  explicit sha_ctx(sha_kind kind);
  ~sha_ctx();
  sha_ctx(const sha_ctx &) = delete;
  sha_ctx &operator=(const sha_ctx &) = delete;

  sha_kind kind;
  evp_md_ctx_st *evp = nullptr;
  size_t used = 0;        // bytes waiting in block
  uint8_t block[1 << 15]; // gathered pieces
};

void sha_add(sha_ctx *c, const void *data, size_t n);
// The digest of everything added (SHA1_DIGEST_BYTES or SHA256_DIGEST_BYTES
// bytes, by kind); the context is then spent.
void sha_finish(sha_ctx *c, uint8_t *digest);
