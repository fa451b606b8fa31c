// The search against a literal model of its steps (candidate by candidate,
// byte by byte) on seeded random images, codes, masks, alignments and
// ranges, near address 0 and at the top of the address space.
#include "image/hexdata_find.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "image/testutil.h"

namespace {

using u128 = unsigned __int128;

std::vector<uint64_t> model(const std::map<uint64_t, uint8_t> &img, const findspec &s) {
  std::vector<uint64_t> m;
  if (img.empty())
    return m;
  const size_t n = s.code.size();
  const uint64_t lo = img.begin()->first, hi = img.rbegin()->first;
  const uint64_t L = s.range.hasStart ? std::max(s.range.start, lo) : lo;
  const u128 U = s.range.hasEnd ? u128(std::min(s.range.end, hi)) : u128(hi) + 1;
  for (u128 c = u128(L) + L % s.alignment; c < U; c += s.alignment) {
    bool ok = true;
    for (size_t i = 0; ok && i < n; ++i) {
      const auto it = img.find(uint64_t(c + i));
      ok = c + i < U && it != img.end() && ((it->second ^ s.code[i]) & s.mask[i]) == 0;
    }
    if (!ok || (!s.overlap && !m.empty() && u128(m.back()) + n > c))
      continue;
    m.push_back(uint64_t(c));
  }
  return m;
}

TEST(Find, MatchesTheModelOnRandomImages) {
  std::mt19937_64 rng(12);
  auto pick = [&](uint64_t n) { return uint64_t(rng() % n); };
  const uint8_t alphabet[] = {0x00, 0x12, 0x34, 0xFF};
  auto byte = [&] { return pick(5) ? alphabet[pick(4)] : uint8_t(rng()); };
  for (int iter = 0; iter < 3000; ++iter) {
    const uint64_t bases[] = {0, 0x10000 + pick(0x300), UINT64_MAX - 1500};
    const uint64_t base = bases[pick(3)];
    std::map<uint64_t, uint8_t> img;
    auto h = testutil::newImage();
    for (int run = int(pick(6)); run > 0; --run) { // runs with gaps, some repeating
      const uint64_t at = base + pick(1200), len = 1 + pick(pick(8) ? 40 : 400);
      for (uint64_t k = 0; k < len && at - base + k <= 1500; ++k) {
        const uint8_t v = pick(8) && img.count(at + k) ? img[at + k] : byte();
        img[at + k] = v;
        ASSERT_TRUE(hex_forceByte(h.get(), at + k, v));
      }
    }
    findspec s;
    const size_t n = pick(10) ? 1 + pick(5) : 63 + pick(8); // past one state word too
    std::vector<uint8_t> code(n), mask(n);
    for (size_t i = 0; i < n; ++i) {
      const uint8_t masks[] = {0xFF, 0x00, 0xF0, uint8_t(rng())};
      code[i] = byte();
      mask[i] = n > 8 ? (pick(20) ? 0 : 0xFF) : masks[pick(4)];
    }
    ASSERT_TRUE(findspec_setCode(&s, code, &mask));
    const uint64_t aligns[] = {1, 1, 2, 3, 4, 5, 256};
    ASSERT_TRUE(findspec_setAlignment(&s, aligns[pick(7)]));
    if (pick(4))
      findspec_setRange(&s, base + pick(1600) - std::min<uint64_t>(base, 50), base + pick(1600));
    s.range.hasStart = s.range.hasStart && pick(4);
    s.overlap = pick(2);

    findmatches got;
    ASSERT_TRUE(hex_find(h.get(), &s, &got));
    // Every run but the last has gone on at least once and ends only where
    // the next match breaks its step.
    std::vector<uint64_t> addrs;
    for (size_t r = 0; r < got.runs.size(); ++r) {
      const findmatches::run &run = got.runs[r];
      ASSERT_TRUE(r + 1 == got.runs.size() || (run.count > 1 && got.runs[r + 1].first - run.last() != run.step));
      for (uint64_t k = 0; k < run.count; ++k)
        addrs.push_back(run.first + k * run.step);
    }
    ASSERT_EQ(addrs, model(img, s)) << "iteration " << iter;
  }
}

} // namespace
