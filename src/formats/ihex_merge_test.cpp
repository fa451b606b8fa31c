// Reading a file for a plain merge leaves out the bytes the main image
// already holds; the merged result must be exactly that of reading the
// whole file and merging it.
#include "formats/ihex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "image/hex_errno.h"
#include "formats/testutil.h"

namespace {

using namespace testutil;

// ---- what is left out ---------------------------------------------------------

uint8_t pattern(unsigned a) { return uint8_t(a * 7 + 3); }

std::vector<uint8_t> run(unsigned addr, unsigned n) {
  std::vector<uint8_t> d(n);
  for (unsigned i = 0; i < n; ++i)
    d[i] = pattern(addr + i);
  return d;
}

// What the differential check below cannot see: the bytes actually left
// out. Equal bytes of the main image are not held, also when a record
// places them again; a differing byte is held even next to a left-out one.
TEST(ihexReadToMerge, LeavesOutEqualBytes) {
  hex_clearErrors();
  Hex main = newHex(), x = newHex();
  hex_storeBytes(main->image, 0, run(0, 0x100).data(), 0x100);
  const std::string file = record(0, 0x80, run(0x80, 0x80)) + record(0, 0x100, run(0x100, 0x80)) +
                           record(0, 0x90, run(0x90, 4)) + record(0, 0x70, {0, pattern(0x71)}) + EOFREC;
  ihex_extent placed;
  EXPECT_TRUE(readText(x.get(), file, nullptr, main->image, &placed)) << errors();
  EXPECT_EQ(hex_getByteCount(x->image), 0x81u);
}

// ---- differential check -------------------------------------------------------

// A random file over two 64 KiB segments whose data mostly follows one
// pattern shared by all files, with differing bytes and records that
// overlap (places met again, with equal or other bytes).
std::string randomFile(std::mt19937 &rng) {
  auto pick = [&](unsigned n) { return unsigned(rng() % n); };
  const unsigned differ = pick(4); // in 8: bytes that leave the pattern
  std::string text;
  unsigned base = 0;
  if (pick(2)) { // a stretch of consecutive records, as firmware is laid out
    for (unsigned a = pick(0x300), end = a + pick(0x300); a < end;) {
      const unsigned len = std::min(end - a, 8 + pick(40));
      std::vector<uint8_t> d(len);
      for (unsigned i = 0; i < len; ++i)
        d[i] = pick(64) < differ ? uint8_t(rng()) : pattern(a + i);
      text += record(0, a, d);
      a += len;
    }
  }
  for (unsigned k = 0, n = 3 + pick(25); k < n; ++k) {
    if (pick(6) == 0) {
      base = pick(2) << 16;
      text += record(4, 0, {0, uint8_t(base >> 16)});
    }
    const unsigned addr = pick(0x500), len = 1 + pick(48);
    std::vector<uint8_t> d(len);
    for (unsigned i = 0; i < len; ++i)
      d[i] = pick(8) < differ ? uint8_t(rng()) : pattern(base + addr + i);
    text += record(0, addr, d);
  }
  return text + EOFREC;
}

void randomSpec(std::mt19937 &rng, ihex_readspec *spec, const void *note) {
  auto pick = [&](unsigned n) { return unsigned(rng() % n); };
  if (pick(3) == 0)
    (void)ihex_readspec_setStart(spec, pick(0x300));
  if (pick(3) == 0)
    (void)ihex_readspec_setEnd(spec, 0x200 + pick(0x10400));
  if (pick(3) == 0) // a negative offset may also place data below 0
    (void)ihex_readspec_setOffset(spec, int32_t(pick(0x200)) - 0x100);
  store_setClobber(&spec->policy, pick(4) == 0);
  store_setPreserve(&spec->policy, pick(6) == 0);
  if (pick(4) != 0)
    store_setOwner(&spec->policy, note);
}

// The test windows of an image: where the random files place their data.
std::string windows(const hexdata *h) { return dump(h, 0, 0x8FF) + " " + dump(h, 0xFE00, 0x106FF); }

TEST(ihexReadToMerge, SameOutcomeAsReadingWhole) {
  const void *owners[] = {&ownerA, &ownerB, &ownerC};
  uint64_t leftOut = 0, clashesAtLeftOut = 0;
  for (uint32_t seed = 1; seed <= 1500; ++seed) {
    std::mt19937 rng(seed);
    Hex whole = newHex(), lean = newHex();
    const unsigned files = 2 + rng() % 2;
    for (unsigned f = 0; f < files; ++f) {
      const std::string text = randomFile(rng);
      ihex_readspec spec;
      const bool useSpec = rng() % 5 != 0;
      if (useSpec)
        randomSpec(rng, &spec, owners[f]);
      const ihex_readspec *sp = useSpec ? &spec : nullptr;
      const bool force = useSpec && spec.policy.clobber;
      const std::string at = "seed " + std::to_string(seed) + " file " + std::to_string(f);

      Hex x = newHex(), y = newHex();
      hex_clearErrors();
      const bool okWhole = readText(x.get(), text, sp);
      const std::string errWhole = errors();
      hex_clearErrors();
      ihex_extent placed;
      const bool okLean = readText(y.get(), text, sp, f ? lean->image : nullptr, &placed);
      for (uint32_t i = 0; i < hex_errorCount(); ++i) // a clash the image does not hold
        clashesAtLeftOut +=
            hex_errorAt(i).code == ECLASH && !hex_hasByte(y->image, hex_errorAt(i).addr);
      ASSERT_EQ(okLean, okWhole) << at;
      ASSERT_EQ(errors(), errWhole) << at;
      std::string extent;
      addBounds(extent, placed.count, placed.lo, placed.hi);
      ASSERT_EQ(extent, bounds(x->image)) << at;
      leftOut += placed.count - hex_getByteCount(y->image);

      if (f == 0) {
        std::swap(whole, x);
        std::swap(lean, y);
        if (rng() % 2) { // bytes preserved by a later option
          const unsigned lo = rng() % 0x500, hi = lo + rng() % 0x100;
          hex_preserveData(whole->image, lo, hi, 1);
          hex_preserveData(lean->image, lo, hi, 1);
        }
      } else {
        hex_clearErrors();
        const bool mWhole = ihex_merge(whole.get(), x.get(), force);
        const std::string mergeWhole = errors();
        hex_clearErrors();
        ASSERT_EQ(ihex_merge(lean.get(), y.get(), force), mWhole) << at;
        ASSERT_EQ(errors(), mergeWhole) << at;
      }
      ASSERT_EQ(windows(lean->image), windows(whole->image)) << at;
    }
  }
  // The draw must reach both ways of judging a left-out address.
  EXPECT_GT(leftOut, 10000u);
  EXPECT_GT(clashesAtLeftOut, 20u);
}

} // namespace
