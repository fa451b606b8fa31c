// The published example vectors, fed whole and in pieces whose sizes cross
// the block and padding boundaries.
#include "common/shahash.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string hexOf(const uint8_t *d, size_t n) {
  std::string s;
  char t[3];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(t, sizeof t, "%02x", d[i]);
    s += t;
  }
  return s;
}

// Feeds msg in pieces of the given sizes, cycling, and finishes.
std::string sha1Of(const std::string &msg, std::initializer_list<size_t> pieces = {SIZE_MAX}) {
  sha1_ctx c;
  sha1_init(&c);
  size_t at = 0;
  for (auto it = pieces.begin(); at < msg.size(); it = ++it == pieces.end() ? pieces.begin() : it) {
    const size_t n = std::min(*it, msg.size() - at);
    sha1_add(&c, msg.data() + at, n);
    at += n;
  }
  uint8_t d[SHA1_DIGEST_BYTES];
  sha1_finish(&c, d);
  return hexOf(d, sizeof d);
}

std::string sha256Of(const std::string &msg, std::initializer_list<size_t> pieces = {SIZE_MAX}) {
  sha256_ctx c;
  sha256_init(&c);
  size_t at = 0;
  for (auto it = pieces.begin(); at < msg.size(); it = ++it == pieces.end() ? pieces.begin() : it) {
    const size_t n = std::min(*it, msg.size() - at);
    sha256_add(&c, msg.data() + at, n);
    at += n;
  }
  uint8_t d[SHA256_DIGEST_BYTES];
  sha256_finish(&c, d);
  return hexOf(d, sizeof d);
}

const std::string k448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::string kMillion(1000000, 'a');

TEST(ShaHash, Sha1ExampleVectors) {
  EXPECT_EQ(sha1Of(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(sha1Of("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  // 56 bytes: the length no longer fits the last block, padding takes two.
  EXPECT_EQ(sha1Of(k448), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(sha1Of(kMillion), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  EXPECT_EQ(sha1Of(kMillion, {1, 63, 64, 65, 7, 1000}), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
}

TEST(ShaHash, Sha256ExampleVectors) {
  EXPECT_EQ(sha256Of(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Of("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha256Of(k448), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(sha256Of(k448, {1}), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(sha256Of(kMillion), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(sha256Of(kMillion, {1, 63, 64, 65, 7, 1000}),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

} // namespace
