// The published example vectors, fed whole and in pieces whose sizes cross
// the block, padding and gathering boundaries.
#include "common/shahash.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Feeds msg in pieces of the given sizes, cycling, and finishes.
std::string digestOf(sha_kind kind, const std::string &msg, std::initializer_list<size_t> pieces) {
  sha_ctx c(kind);
  auto it = pieces.begin();
  for (size_t at = 0, n; at < msg.size(); at += n, it = ++it == pieces.end() ? pieces.begin() : it)
    sha_add(&c, msg.data() + at, n = std::min(*it, msg.size() - at));
  uint8_t d[SHA256_DIGEST_BYTES];
  sha_finish(&c, d);
  std::string s;
  for (size_t i = 0; i < (kind == SHA_1 ? SHA1_DIGEST_BYTES : SHA256_DIGEST_BYTES); ++i)
    s += "0123456789abcdef"[d[i] >> 4], s += "0123456789abcdef"[d[i] & 15];
  return s;
}

TEST(ShaHash, ExampleVectorsWholeAndInPieces) {
  const std::string m448 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
  const std::string million(1000000, 'a');
  // 56 bytes: the length no longer fits the last block, padding takes two.
  const struct {
    const std::string &msg;
    const char *sha1, *sha256;
  } rows[] = {
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709",
       "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d",
       "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {m448, "84983e441c3bd26ebaae4aa1f95129e5e54670f1",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      {million, "34aa973cd4c4daa4f61eeb2bdbad27316534016f",
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto &r : rows) {
    // Pieces small and large around the gathering block's size.
    for (auto pieces : {std::initializer_list<size_t>{SIZE_MAX}, {1, 63, 64, 65, 7, 1000, 40000}}) {
      EXPECT_EQ(digestOf(SHA_1, r.msg, pieces), r.sha1);
      EXPECT_EQ(digestOf(SHA_256, r.msg, pieces), r.sha256);
    }
  }
}

} // namespace
