// The checksum engine against a byte-at-a-time model of every algorithm on
// seeded random images and records, the values users check by hand, and the
// rules for storing the result.
#include "image/hexdata_checksum.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <tuple>

#include "common/shahash.h"
#include "image/testutil.h"

namespace {

using namespace testutil;

// ---- the model: each algorithm's steps one address at a time --------------

struct model_undef {
  bool any = false, skipped = false;
  uint64_t first = 0, lo = 0, hi = 0;
  void note(uint64_t a, bool skip) {
    skipped = any ? skipped : skip;
    first = any ? first : a;
    lo = any ? std::min(lo, a) : a;
    hi = any ? std::max(hi, a) : a;
    any = true;
  }
};

bool modelSkipped(const ckspec &s, uint64_t a) {
  return s.skipWordWidth && a % s.skipWordWidth >= s.skipWordWidth - s.skipBytes;
}
uint64_t sext32(uint32_t v) { return uint64_t(int64_t(int32_t(v))); }

// The stream of a non-additive algorithm: walk address and byte, or -1
// where the address is skipped.
uint64_t modelFrom(const ckspec &s, uint64_t a) {
  const uint64_t r = s.revWordWidth;
  return r ? a + (r - 1) - 2 * (a % r) : a;
}
std::vector<std::pair<uint64_t, int>> modelStream(const hexdata *h, const ckspec &s,
                                                  model_undef *u) {
  std::vector<std::pair<uint64_t, int>> out;
  for (uint64_t a = s.range.start; a <= s.range.end; ++a) {
    const uint64_t from = modelFrom(s, a);
    if (!modelSkipped(s, from) && !hex_hasByte(h, from))
      u->note(from, false);
    out.push_back({a, modelSkipped(s, from) ? -1 : hex_hasByte(h, from) ? hex_getByte(h, from) : 0});
  }
  return out;
}

std::vector<uint8_t> modelResult(const hexdata *h, const ckspec &s, model_undef *u) {
  const int g = s.algorithm;
  const unsigned nBits = 8 * s.resultWidth;
  uint64_t v = s.offset, s1 = 0, s2 = 0, words = 0;
  if (ckspec_isAdditive(g)) {
    for (uint64_t a = s.range.start; a <= s.range.end; ++a) {
      if (!hex_hasByte(h, a))
        u->note(a, true);
      else if (!modelSkipped(s, a)) {
        const uint64_t term = sext32(uint32_t(hex_getByte(h, a)) << (8 * (a % std::abs(g))));
        v = g > 0 ? v + term : v - term;
      }
    }
  } else if (g == CK_SHA1 || g == CK_SHA256) {
    sha_ctx c(g == CK_SHA1 ? SHA_1 : SHA_256);
    for (auto [a, b] : modelStream(h, s, u)) {
      const uint8_t byte = uint8_t(b);
      if (b >= 0)
        sha_add(&c, &byte, 1);
    }
    std::vector<uint8_t> d(g == CK_SHA1 ? 20 : 32);
    sha_finish(&c, d.data());
    if (s.bigEndianResult)
      std::reverse(d.begin(), d.end());
    return d;
  } else if (g == CK_CRC || g == CK_REFCRC) {
    const uint64_t top = uint64_t(1) << (nBits - 1), rpoly = reflectBits(s.poly, nBits);
    for (auto [a, b] : modelStream(h, s, u)) {
      if (b < 0)
        continue;
      v ^= g == CK_CRC ? sext32(uint32_t(b) << ((nBits - 8) % 32)) : uint64_t(b);
      for (int i = 0; i < 8; ++i)
        v = g == CK_CRC ? ((v & top) ? (v << 1) ^ s.poly : v << 1)
                        : ((v & 1) ? (v >> 1) ^ rpoly : v >> 1);
    }
    v ^= s.xorValue;
  } else if (g == CK_FLETCHER8) {
    const auto stream = modelStream(h, s, u);
    const uint32_t count = uint32_t(s.range.end - s.range.start + 1);
    s1 = s2 = 0xFF;
    for (uint32_t i = 0; i < count; ++i) {
      if (stream[i].second >= 0)
        s2 += s1 += uint64_t(stream[i].second);
      if (i % 20 == 19 || i + 1 == count)
        s1 = (s1 & 0xFF) + (s1 >> 8), s2 = (s2 & 0xFF) + (s2 >> 8);
    }
    v = (((s2 & 0xFF) + (s2 >> 8)) << 8) | ((s1 & 0xFF) + (s1 >> 8));
  } else {
    auto fold = [&] { s1 = (s1 & 0xFFFF) + (s1 >> 16 & 0xFFFF), s2 = (s2 & 0xFFFF) + (s2 >> 16 & 0xFFFF); };
    for (auto [a, b] : modelStream(h, s, u)) {
      if (b < 0)
        continue;
      s1 += uint64_t(b) << (8 * (a & 1));
      if ((a & 1) && (s2 += s1, ++words == 256))
        fold(), words = 0;
    }
    if (words)
      fold();
    v = (((s2 & 0xFFFF) + (s2 >> 16)) << 16) | ((s1 + (s1 >> 16)) & 0xFFFF);
  }
  std::vector<uint8_t> out(s.resultWidth);
  for (unsigned i = 0; i < s.resultWidth; ++i)
    out[s.bigEndianResult ? s.resultWidth - 1 - i : i] = uint8_t(v >> (8 * i));
  return out;
}

// What the engine's EUNDEFADDR records say, gathered as the option does.
model_undef recordedUndef() {
  model_undef u;
  for (uint32_t i = 0; i < hex_errorCount(); ++i)
    if (hex_errorAt(i).code == EUNDEFADDR)
      u.note(hex_errorAt(i).addr, hex_errorAt(i).flag);
  return u;
}

ckspec makeSpec(int32_t g, uint64_t start, uint64_t end, uint32_t w = 0) {
  ckspec s;
  EXPECT_TRUE(ckspec_create(&s, g));
  EXPECT_TRUE(ckspec_setRange(&s, start, end));
  EXPECT_TRUE(!w || ckspec_setResultWidth(&s, w));
  return s;
}

TEST(Checksum, FastPathMatchesTheModelOnRandomImagesAndSpecs) {
  std::mt19937_64 rng(20240611);
  const int32_t algorithms[] = {1, 2, 3, 4, -1, -2, -3, -4, 5, -5, 7, 8, 10, 11};
  for (int round = 0; round < 600; ++round) {
    Image img = newImage(), far = newImage();
    // A few runs of data with holes between them, some crossing rows; every
    // other image spread out, with holes of thousands of bytes.
    const uint64_t base = (rng() % 4) * 0x100 + rng() % 0x100;
    const uint64_t spread = round % 2 ? 1 : 1 + rng() % 40;
    for (int k = 0, n = int(rng() % 6); k < n; ++k) {
      std::vector<uint8_t> run(1 + rng() % 300);
      for (auto &b : run)
        b = uint8_t(rng());
      hex_storeBytes(img.get(), base + spread * (rng() % 0x500), run.data(), run.size());
    }
    const int32_t g = algorithms[rng() % std::size(algorithms)];
    // Every fourth range starts on whole reversal words.
    const uint64_t align = round % 4 ? 1 : 60;
    const uint64_t start = (base + spread * (rng() % 0x300)) / align * align;
    ckspec s = makeSpec(g, start, start + spread * (rng() % 0x400));
    const uint32_t lo = ckspec_getMinWidth(g), hi = ckspec_getMaxWidth(g);
    ASSERT_TRUE(ckspec_setResultWidth(&s, lo + uint32_t(rng() % (hi - lo + 1))));
    s.bigEndianResult = rng() & 1;
    if (rng() % 3 == 0)
      s.revWordWidth = 1 + uint32_t(rng() % 5);
    if (rng() % 3 == 0) {
      s.skipWordWidth = 2 + uint32_t(rng() % 6);
      s.skipBytes = 1 + uint32_t(rng() % (s.skipWordWidth - 1));
    }
    s.offset = rng() % 2 ? rng() : 0;
    s.xorValue = rng() % 2 ? rng() : 0;
    s.poly = rng() | 1;
    SCOPED_TRACE(testing::Message() << "round " << round << " g" << g << " w" << s.resultWidth << " r"
                                    << s.revWordWidth << " s" << s.skipWordWidth << "." << s.skipBytes);
    model_undef want;
    const std::vector<uint8_t> expected = modelResult(img.get(), s, &want);
    hex_clearErrors();
    std::vector<uint8_t> got;
    ASSERT_TRUE(hex_checksum(img.get(), &s, &got)) << errors();
    EXPECT_EQ(hexBytes(got), hexBytes(expected));
    const model_undef seen = recordedUndef();
    ASSERT_EQ(seen.any, want.any);
    if (want.any) {
      EXPECT_EQ(seen.first, want.first);
      EXPECT_EQ(seen.lo, want.lo);
      EXPECT_EQ(seen.hi, want.hi);
      EXPECT_EQ(seen.skipped, want.skipped);
      EXPECT_LE(hex_errorCount(), 3u);
    }

    // The bytes the range reads, far up (840: whole reversal and skip
    // words), with zeros in front that leave the value as it is: whole
    // Fletcher-16 folds while s1 is 0, whole stretches of 20 while the
    // Fletcher-8 sums are 0xFF, bytes an additive sum skips; a hash refuses
    // more than 4 GiB. A CRC runs from 0 to the top of the address space,
    // and must equal its first part carried on from the register it leaves.
    const uint64_t up = 840 * ((uint64_t(1) << 52) + (rng() >> 14));
    for (uint64_t a = s.range.start, m; a <= s.range.end; ++a)
      if (hex_hasByte(img.get(), m = ckspec_isAdditive(g) ? a : modelFrom(s, a)))
        hex_storeByte(far.get(), m + up, hex_getByte(img.get(), m));
    ckspec f = s;
    f.range.end += up;
    f.range.start += up - (g == CK_FLETCHER16  ? 840 * 256 * (rng() >> 40)
                           : g == CK_FLETCHER8 ? 16800 * (rng() % 200000)
                           : g >= CK_SHA256    ? uint64_t(1) << 32
                                               : f.range.start + up);
    const uint64_t cut = f.range.end / 840 * 840 + 840 * (2 + rng() % (uint64_t(1) << 50));
    ckspec head = f, tail = f;
    head.range.end = cut - 1;
    head.xorValue = 0;
    tail.range = {cut, ~uint64_t(0), true, true};
    hex_clearErrors();
    std::vector<uint8_t> whole, part;
    if (ckspec_isCRC(g)) {
      f.range.end = ~uint64_t(0);
      ASSERT_TRUE(hex_checksum(far.get(), &head, &part));
      tail.offset = 0;
      for (unsigned i = 0; i < s.resultWidth; ++i)
        tail.offset = tail.offset << 8 | part[s.bigEndianResult ? i : s.resultWidth - 1 - i];
      ASSERT_TRUE(hex_checksum(far.get(), &tail, &got));
    }
    const bool hash = g >= CK_SHA256;
    EXPECT_EQ(hex_checksum(far.get(), &f, &whole), !hash);
    EXPECT_EQ(hexBytes(whole) + (hash ? errors() : ""), hash ? "EARG" : hexBytes(got));
  }
}

// Values worked out by hand from the algorithms' definitions.
TEST(Checksum, HandCheckedValues) {
  // Algorithm, where the data goes, the data, result width, value in value order.
  const std::tuple<int32_t, uint64_t, const char *, uint32_t, const char *> rows[] = {
      {-1, 0, "\x01\x02\x03", 1, "FA"},
      {2, 0x100, "\x01\x02", 2, "0201"},
      {2, 0x101, "\x01\x02", 2, "0102"},
      // Intended: a 4-byte word's top byte of 0x80 is a negative term.
      {4, 0x103, "\x80", 8, "FFFFFFFF80000000"},
      {-4, 0x103, "\x80", 8, "0000000080000000"},
      {3, 0x101, "\x80", 8, "0000000000800000"},
      {7, 0, "abcde", 2, "C8F0"},
      {7, 0, "abcdef", 2, "2057"},
      {8, 0, "abcdef", 4, "56502D2A"},
      // Intended: the last byte, at an even address, never reaches s2.
      {8, 0, "abcde", 4, "2926C729"},
  };
  for (auto [g, at, data, w, value] : rows) {
    SCOPED_TRACE(value);
    Image img = newImage();
    const size_t n = std::strlen(data);
    hex_storeBytes(img.get(), at, reinterpret_cast<const uint8_t *>(data), n);
    ckspec s = makeSpec(g, at, at + n - 1, w);
    s.bigEndianResult = true;
    std::vector<uint8_t> got;
    hex_clearErrors();
    ASSERT_TRUE(hex_checksum(img.get(), &s, &got));
    EXPECT_EQ(hexBytes(got), value);
  }
}

// Storing: an empty slot, an equal byte, a different byte without and with
// clobber, forced data overwritten again, preserved data; trailing codes.
TEST(Checksum, StoreRules) {
  struct row {
    const char *name;
    bool clobber;
    uint8_t at101; // what address 0x101 holds first (0: nothing)
    bool forced101, preserved101;
    bool ok;
    const char *dump;
    const char *errors;
  } rows[] = {
      {"empty", false, 0, false, false, true, "100=06/A 101=34/A 102=00/A 103=34/A count 7 0-103", ""},
      {"equal byte", false, 0x34, false, false, true,
       "100=06/A 101=34 102=00/A 103=34/A count 7 0-103", ""},
      {"clash", false, 0x35, false, false, false, "100=06/A 101=35/B count 5 0-101", "ECLASH@101"},
      // Only data already there is forced; empty slots take a plain store.
      {"clobber", true, 0x35, false, false, true,
       "100=06/A 101=34F/A 102=00/A 103=34/A count 7 0-103", ""},
      {"clobber forced", true, 0x35, true, false, false,
       "100=06/A 101=34F/A 102=00/A 103=34/A count 7 0-103", "ECLOBBERED@101/B"},
      {"preserved", true, 0x35, false, true, false, "100=06/A 101=35R/B count 5 0-101",
       "EPRESERVED@101"},
  };
  for (const row &r : rows) {
    SCOPED_TRACE(r.name);
    Image img = newImage();
    const uint8_t data[] = {1, 2, 3};
    hex_storeBytes(img.get(), 0, data, 3);
    if (r.at101) {
      hex_putByte(img.get(), 0x101, r.at101, r.forced101);
      hex_setNote(img.get(), 0x101, 0x101, &ownerB);
      hex_preserveData(img.get(), 0x101, 0x101, r.preserved101);
    }
    if (r.at101 == 0x34) // the byte the result puts there
      hex_setNote(img.get(), 0x101, 0x101, nullptr);
    ckspec s = makeSpec(1, 0, 2, 2);
    ckspec_setResultDest(&s, 0x100);
    ckspec_addCodeByte(&s, 0x34);
    store_setClobber(&s.policy, r.clobber);
    store_setOwner(&s.policy, &ownerA);
    hex_clearErrors();
    EXPECT_EQ(hex_checksum(img.get(), &s, nullptr), r.ok);
    EXPECT_EQ(dump(img.get(), 0x100, 0x103), r.dump);
    EXPECT_EQ(errors(), r.errors);
  }
}

} // namespace
