// The fill engine against a model that follows the fill's steps address by
// address on a std::map image: the pattern held as bytes, the increment added
// byte by byte with carries, its four bytes repeating above byte 3 (intended).
#include "image/hexdata_fill.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <tuple>

#include "image/testsupport.h"
#include "image/testutil.h"

namespace {

using namespace testutil;

struct Slot {
  uint8_t data = 0;
  bool preserved = false, forced = false;
  const void *note = nullptr;
};
using Model = std::map<uint64_t, Slot>;

// The result; *err is the error record the engine must leave.
int modelFill(Model &m, const fillspec &f, uint64_t limit, std::string *err) {
  std::vector<uint8_t> pat;
  for (uint64_t v : f.values)
    for (uint32_t i = 0; i < f.width; ++i)
      pat.push_back(uint8_t(v >> (8 * i)));
  const uint64_t P = pat.size(), R = f.rowLength;
  uint64_t lo = f.range.start, hi = f.range.hasEnd ? f.range.end : f.range.start;
  if (f.mode == FILL_DATA_ROWS) { // the end as a true sum, held in the address space
    lo -= lo % R;
    const __int128 end = __int128(hi) + hi % R - 1;
    if (end < __int128(lo))
      return 1;
    hi = uint64_t(std::min<__int128>(end, UINT64_MAX));
  }
  bool rowHasData = false;
  for (uint64_t a = lo; lo <= hi && a <= limit; ++a) {
    const uint8_t b = pat[a % P];
    for (uint64_t i = 0, carry = 0; f.increment && a % P == P - 1 && i < P; ++i) {
      carry += pat[i] + ((f.increment >> (8 * i % 32)) & 0xFF);
      pat[i] = uint8_t(carry);
      carry >>= 8;
    }
    if (f.mode == FILL_DATA_ROWS && a % R == 0) {
      rowHasData = false;
      for (uint64_t k = 0; k < R && a + k >= a; ++k)
        rowHasData |= m.count(a + k) > 0;
    }
    const bool has = m.count(a) > 0;
    if ((f.mode == FILL_UNUSED && has) || (f.mode == FILL_USED && !has) ||
        (f.mode == FILL_DATA_ROWS && (has || !rowHasData))) {
    } else if (has && m[a].preserved) {
      *err = "EPRESERVED@" + hexText(a);
      return 0;
    } else {
      m[a] = {b, f.policy.preserve, m[a].forced || f.mode == FILL_USED || f.mode == FILL_ALL,
              f.policy.owner ? f.policy.owner : m[a].note};
    }
    if (a == hi)
      break;
  }
  return 1;
}

// Random images near address 0 and at the top of the address space, random
// records of every mode, width and increment, ranges starting and ending
// anywhere in a row; compared as testutil's present() and bounds() show.
TEST(Fill, MatchesTheModel) {
  for (uint64_t seed = 1; seed <= 1500; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    auto pick = [&](uint64_t n) { return rng() % n; };
    const uint64_t span = 0x500, base = seed % 3 == 0 ? UINT64_MAX - span + 1 : 0;
    Model m;
    Image h = newImage();
    for (int run = int(pick(6)); run > 0; --run)
      for (uint64_t a = base + pick(span), n = 1 + pick(40); n > 0 && a < base + span - 1; --n, ++a)
        if (!m.count(a)) {
          m[a] = {uint8_t(rng()), pick(8) == 0, false, pick(2) ? &ownerA : &ownerB};
          ASSERT_TRUE(hex_storeByte(h.get(), a, m[a].data) && hex_setNote(h.get(), a, a, m[a].note) &&
                      hex_preserveData(h.get(), a, a, m[a].preserved));
        }
    fillspec f;
    const bool counting = pick(2);
    bool ok = fillspec_setWidth(&f, 1 + uint32_t(pick(8)));
    for (uint64_t n = counting ? 1 : 1 + pick(4); n > 0; --n)
      ok = ok && fillspec_addValue(&f, rng() & f.mask);
    ok = ok && fillspec_setIncrement(&f, !counting ? 0 : pick(2) ? int32_t(pick(5)) - 2 : int32_t(rng()));
    ok = ok && fillspec_setMode(&f, uint32_t(pick(4))) && fillspec_setRowLength(&f, 1 + uint32_t(pick(40)));
    const uint64_t s = base + pick(span), e = s + pick(base + span - s);
    ok = ok && range_setStart(&f.range, s) && (pick(4) == 0 || range_setEnd(&f.range, e));
    ASSERT_TRUE(ok && store_setPreserve(&f.policy, pick(5) == 0) && (pick(2) || store_setOwner(&f.policy, &ownerC)));

    std::string want, model;
    const int r = modelFill(m, f, base ? UINT64_MAX : span + 64, &want);
    for (auto &[a, sl] : m)
      addToken(model, hexText(a) + "=" +
                          slotText(sl.data, HEX_PRESENT | (sl.preserved ? HEX_PRESERVED : 0) | (sl.forced ? HEX_FORCED : 0),
                                   sl.note));
    addBounds(model, m.size(), m.empty() ? 0 : m.begin()->first, m.empty() ? 0 : m.rbegin()->first);
    hex_clearErrors();
    EXPECT_EQ(hex_fill(h.get(), &f), r);
    EXPECT_EQ(errors(), want);
    std::string got = present(h.get());
    addToken(got, bounds(h.get()));
    EXPECT_EQ(got, model);
  }
}

// A range whose new rows exceed the budget (lowered here to one row) is
// refused before anything is written; rows already holding data cost
// nothing, and modes that only touch rows with data are never refused.
TEST(Fill, BudgetRefusesBeforeWriting) {
  struct LowBudget {
    LowBudget() { hex_setRowBudget(1); }
    ~LowBudget() { hex_setRowBudget(HEX_ROW_BUDGET); }
  } low;
  const std::tuple<uint64_t, uint64_t, uint32_t, const char *, const char *> cases[] = {
      {0, UINT64_MAX, FILL_UNUSED, "EBUDGET@FFFFFFFFFFFFFF", "FF=55"},
      {0x100, 0x2FF, FILL_ALL, "EBUDGET@2", "FF=55"},
      {0xFF, 0x100, FILL_UNUSED, "", "FF=55 100=AB"}, // one new row
      {0, UINT64_MAX, FILL_USED, "", "FF=00F"}, // 0xAB as 2 bytes: the high one
      // Its end stops at the top instead of wrapping round to 0xD.
      {0, UINT64_MAX, FILL_DATA_ROWS, "",
       "F0=AB F1=00 F2=AB F3=00 F4=AB F5=00 F6=AB F7=00 F8=AB F9=00 FA=AB FB=00 FC=AB FD=00 "
       "FE=AB FF=55"},
  };
  for (auto [start, end, mode, error, result] : cases) {
    Image h = newImage();
    fillspec f;
    ASSERT_TRUE(hex_storeByte(h.get(), 0xFF, 0x55) && fillspec_addValue(&f, 0xAB) &&
                range_setStart(&f.range, start) && range_setEnd(&f.range, end) &&
                fillspec_setMode(&f, mode));
    hex_clearErrors();
    EXPECT_EQ(hex_fill(h.get(), &f), !*error);
    EXPECT_EQ(errors(), error);
    EXPECT_EQ(present(h.get()), result);
  }
}

} // namespace
