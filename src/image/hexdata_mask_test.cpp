// The mask engine against the mask's steps walked address by address on a
// copy of the image's bytes, near address 0 and at the top of the space.
#include "image/hexdata_mask.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

#include "image/testutil.h"

namespace {

using namespace testutil;

TEST(Mask, MatchesTheModel) {
  for (uint64_t seed = 1; seed <= 1500; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    auto pick = [&](uint64_t n) { return rng() % n; };
    const uint64_t span = 0x500, base = seed % 3 == 0 ? UINT64_MAX - span + 1 : 0;
    std::map<uint64_t, std::pair<uint8_t, bool>> m; // data, preserved
    Image h = newImage();
    for (int run = int(pick(6)); run > 0; --run)
      for (uint64_t a = base + pick(span), n = 1 + pick(60); n > 0 && a < base + span - 1; --n, ++a)
        if (!m.count(a)) {
          m[a] = {uint8_t(rng()), pick(30) == 0};
          ASSERT_TRUE(hex_storeByte(h.get(), a, m[a].first) && hex_setNote(h.get(), a, a, &ownerA) &&
                      hex_preserveData(h.get(), a, a, m[a].second));
        }
    maskspec s;
    for (uint64_t n = pick(6); n > 0; --n)
      maskspec_addMask(&s, uint8_t(rng()));
    const uint64_t lo = base + pick(span), hi = lo + pick(base + span - lo);
    ASSERT_TRUE((pick(4) == 0 || range_setStart(&s.range, lo)) && (pick(4) == 0 || range_setEnd(&s.range, hi)) &&
                maskspec_setPreserve(&s, pick(4) == 0));

    std::string want, stop = s.masks.empty() ? "ENOMASK" : "";
    for (auto &[a, v] : m) {
      if ((s.range.hasStart && a < s.range.start) || (s.range.hasEnd && a > s.range.end) || !stop.empty())
        continue;
      if (v.second)
        stop = "EPRESERVED@" + hexText(a);
      else
        v = {uint8_t(v.first & s.masks[a % s.masks.size()]), s.preserve};
    }
    for (auto &[a, v] : m)
      addToken(want, hexText(a) + "=" + slotText(v.first, HEX_PRESENT | (v.second ? HEX_PRESERVED : 0), &ownerA));
    hex_clearErrors();
    EXPECT_EQ(hex_mask(h.get(), &s), stop.empty() ? 1 : 0);
    EXPECT_EQ(errors(), stop);
    EXPECT_EQ(present(h.get()), want);
  }
}

} // namespace
