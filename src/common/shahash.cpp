#include "common/shahash.h"

#include <cstring>
#include <openssl/evp.h>

#include "common/alert.h"

namespace {

void hand(sha_ctx *c, const void *data, size_t n) {
  if (EVP_DigestUpdate(c->evp, data, n) != 1)
    alert_outOfMemory();
}

} // namespace

sha_ctx::sha_ctx(sha_kind k) : kind(k) {
  evp = EVP_MD_CTX_new();
  if (!evp || EVP_DigestInit_ex(evp, kind == SHA_1 ? EVP_sha1() : EVP_sha256(), nullptr) != 1)
    alert_outOfMemory();
}

sha_ctx::~sha_ctx() { EVP_MD_CTX_free(evp); }

void sha_add(sha_ctx *c, const void *data, size_t n) {
  const size_t room = sizeof c->block - c->used;
  if (n < room) {
    std::memcpy(c->block + c->used, data, n);
    c->used += n;
    return;
  }
  if (c->used) {
    hand(c, c->block, c->used);
    c->used = 0;
  }
  hand(c, data, n);
}

void sha_finish(sha_ctx *c, uint8_t *digest) {
  if (c->used)
    hand(c, c->block, c->used);
  c->used = 0;
  unsigned n = 0;
  if (EVP_DigestFinal_ex(c->evp, digest, &n) != 1)
    alert_outOfMemory();
}
