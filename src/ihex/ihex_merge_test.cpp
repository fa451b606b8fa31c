// Reading a file for a plain merge leaves out the bytes the main image
// already holds; the merged result must be exactly that of reading the
// whole file and merging it.
#include "ihex/ihex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ihex/hex_errno.h"

namespace {

std::string record(unsigned type, unsigned addr, const std::vector<uint8_t> &d) {
  char tmp[16];
  unsigned sum = unsigned(d.size()) + (addr >> 8) + (addr & 0xFF) + type;
  std::snprintf(tmp, sizeof tmp, ":%02X%04X%02X", unsigned(d.size()), addr & 0xFFFF, type);
  std::string s = tmp;
  for (uint8_t b : d) {
    std::snprintf(tmp, sizeof tmp, "%02X", b);
    s += tmp;
    sum += b;
  }
  std::snprintf(tmp, sizeof tmp, "%02X\n", -sum & 0xFF);
  return s + tmp;
}

// Reads text through a real stream; with `into`, for a merge into it.
bool readText(ihex *x, const std::string &text, const ihex_readspec *spec, const hexdata *into,
              ihex_extent *placed) {
  FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  bool ok = placed ? ihex_readToMerge(x, f, spec, into, placed) : ihex_readSpecd(x, f, spec);
  std::fclose(f);
  return ok;
}

// Every address of the test windows that holds a byte or a note:
// "addr=data/attr/owner", then the count and bounds.
std::string dumpImage(const hexdata *h, const void *owners) {
  std::string s;
  char tmp[64];
  for (uint64_t w : {uint64_t(0), uint64_t(0xFE00)})
    for (uint64_t a = w; a < w + 0x900; ++a) {
      const hex_row *r = hex_getRow(h, hex_rowOf(a));
      const uint8_t attr = r ? r->attr[a & 0xFF] : 0;
      const void *n = hex_getNote(h, a);
      if (!attr && !n)
        continue;
      std::snprintf(tmp, sizeof tmp, "%llX=%02X/%X/%ld ", static_cast<unsigned long long>(a),
                    r ? r->data[a & 0xFF] : 0, attr,
                    n ? long(static_cast<const char *>(n) - static_cast<const char *>(owners))
                      : -1);
      s += tmp;
    }
  const uint64_t count = hex_getByteCount(h);
  std::snprintf(tmp, sizeof tmp, "count %llu", static_cast<unsigned long long>(count));
  s += tmp;
  if (count) {
    std::snprintf(tmp, sizeof tmp, " %llX-%llX", static_cast<unsigned long long>(hex_getLoAddr(h)),
                  static_cast<unsigned long long>(hex_getHiAddr(h)));
    s += tmp;
  }
  return s;
}

std::string errorList() {
  std::string s;
  char tmp[96];
  for (uint32_t i = 0; i < hex_errorCount(); ++i) {
    const hex_error e = hex_errorAt(i);
    std::snprintf(tmp, sizeof tmp, "%s(%llX,%p,%u,%u) ", e.name,
                  static_cast<unsigned long long>(e.addr), e.note, e.num, e.num2);
    s += tmp;
  }
  return s;
}

std::string extentText(const ihex_extent &e) {
  return std::to_string(e.count) + " " + std::to_string(e.lo) + "-" + std::to_string(e.hi);
}

// The extent of an image read whole.
ihex_extent extentOf(const hexdata *h) {
  if (hex_getByteCount(h) == 0)
    return {};
  return {hex_getByteCount(h), hex_getLoAddr(h), hex_getHiAddr(h)};
}

// ---- what is left out ---------------------------------------------------------

uint8_t pattern(unsigned a) { return uint8_t(a * 7 + 3); }

std::vector<uint8_t> run(unsigned addr, unsigned n) {
  std::vector<uint8_t> d(n);
  for (unsigned i = 0; i < n; ++i)
    d[i] = pattern(addr + i);
  return d;
}

struct leaveCase {
  const char *name;
  std::string file;   // read for a merge into 0x00..0xFF of pattern()
  bool preservedMain; // 0x80..0x8F of the main image preserved
  bool forced, preserving;
  uint64_t held;      // bytes in the file's own image
  const char *extent; // what the file placed, held or not
  const char *errors; // error codes of the read
};

const std::string EOFREC = ":00000001FF\n";
const std::string OVERLAP = record(0, 0x80, run(0x80, 0x80)) + record(0, 0x100, run(0x100, 0x80));

const leaveCase leaveCases[] = {
    {"equal bytes of the main image are left out", OVERLAP + EOFREC, false, false, false, 0x80,
     "256 128-383", ""},
    {"the same bytes again add nothing", OVERLAP + record(0, 0x90, run(0x90, 4)) + EOFREC, false,
     false, false, 0x80, "256 128-383", ""},
    {"a different byte at a left-out address clashes",
     OVERLAP + record(0, 0x90, {pattern(0x90), 0}) + EOFREC, false, false, false, 0x80,
     "256 128-383", "ECLASH "},
    {"a different byte of the file is held", record(0, 0x70, {0, pattern(0x71)}) + EOFREC, false,
     false, false, 1, "2 112-113", ""},
    {"preserved bytes are held for the merge to refuse", OVERLAP + EOFREC, true, false, false, 0x90,
     "256 128-383", ""},
    {"a forced file holds everything", OVERLAP + EOFREC, false, true, false, 0x100, "256 128-383",
     ""},
    {"a preserving file holds everything", OVERLAP + EOFREC, false, false, true, 0x100,
     "256 128-383", ""},
};

TEST(ihexReadToMerge, LeavesOutWhatTheMergeWouldNotChange) {
  for (const leaveCase &c : leaveCases) {
    hex_clearErrors();
    ihex *main = ihex_create(), *x = ihex_create();
    ASSERT_TRUE(readText(main,
                         record(0, 0, run(0, 0x80)) + record(0, 0x80, run(0x80, 0x80)) + EOFREC,
                         nullptr, nullptr, nullptr));
    if (c.preservedMain)
      hex_preserveData(main->image, 0x80, 0x8F, 1);
    ihex_readspec spec;
    ihex_readspec_setCanBeClobbered(&spec, !c.forced);
    ihex_readspec_setPreserveData(&spec, c.preserving);
    ihex_extent placed;
    readText(x, c.file, &spec, main->image, &placed);
    std::string codes;
    for (uint32_t i = 0; i < hex_errorCount(); ++i)
      codes += std::string(hex_errorAt(i).name) + " ";
    EXPECT_EQ(codes, c.errors) << c.name;
    EXPECT_EQ(hex_getByteCount(x->image), c.held) << c.name;
    EXPECT_EQ(extentText(placed), c.extent) << c.name;
    ihex_destroy(x);
    ihex_destroy(main);
  }
}

// ---- differential check -------------------------------------------------------

// A random file over two 64 KiB segments whose data mostly follows one
// pattern shared by all files, with differing bytes, repeated records
// (equal or changed) and stray records.
std::string randomFile(std::mt19937 &rng) {
  auto pick = [&](unsigned n) { return unsigned(rng() % n); };
  const unsigned differ = pick(4); // in 8: bytes that leave the pattern
  std::string text;
  std::vector<std::string> done;
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
    if (!done.empty() && pick(5) == 0) { // a repeated record, maybe changed
      std::string again = done[pick(unsigned(done.size()))];
      if (pick(2)) {
        const size_t at = 9 + 2 * pick(unsigned(again.size() - 12) / 2);
        again[at] = again[at] == '0' ? '1' : '0';
        again.replace(again.size() - 3, 2, "00"); // a wrong checksum only warns
      }
      text += again;
      continue;
    }
    const unsigned addr = pick(0x500), len = 1 + pick(48);
    std::vector<uint8_t> d(len);
    for (unsigned i = 0; i < len; ++i)
      d[i] = pick(8) < differ ? uint8_t(rng()) : pattern(base + addr + i);
    done.push_back(record(0, addr, d));
    text += done.back();
  }
  return text + EOFREC;
}

void randomSpec(std::mt19937 &rng, ihex_readspec *spec, const void *note) {
  auto pick = [&](unsigned n) { return unsigned(rng() % n); };
  if (pick(3) == 0)
    ihex_readspec_setStart(spec, pick(0x300));
  if (pick(3) == 0)
    ihex_readspec_setEnd(spec, 0x200 + pick(0x10400));
  if (pick(3) == 0) // a negative offset may also place data below 0
    ihex_readspec_setOffset(spec, int32_t(pick(0x200)) - 0x100);
  ihex_readspec_setCanBeClobbered(spec, pick(4) != 0);
  ihex_readspec_setPreserveData(spec, pick(6) == 0);
  if (pick(4) != 0)
    ihex_readspec_setNote(spec, note);
}

TEST(ihexReadToMerge, SameOutcomeAsReadingWhole) {
  char owners[4];
  uint64_t leftOut = 0, clashesAtLeftOut = 0;
  for (uint32_t seed = 1; seed <= 1500; ++seed) {
    std::mt19937 rng(seed);
    ihex *whole = ihex_create(), *lean = ihex_create();
    const unsigned files = 2 + rng() % 2;
    for (unsigned f = 0; f < files; ++f) {
      const std::string text = randomFile(rng);
      ihex_readspec spec;
      const bool useSpec = rng() % 5 != 0;
      if (useSpec)
        randomSpec(rng, &spec, owners + f);
      const ihex_readspec *sp = useSpec ? &spec : nullptr;
      const bool force = useSpec && !spec.canBeClobbered;
      const std::string at = "seed " + std::to_string(seed) + " file " + std::to_string(f);

      ihex *x = ihex_create(), *y = ihex_create();
      hex_clearErrors();
      const bool okWhole = readText(x, text, sp, nullptr, nullptr);
      const std::string errWhole = errorList();
      hex_clearErrors();
      ihex_extent placed;
      const bool okLean = readText(y, text, sp, f ? lean->image : nullptr, &placed);
      const std::string errLean = errorList();
      for (uint32_t i = 0; i < hex_errorCount(); ++i) // a clash the image does not hold
        clashesAtLeftOut +=
            hex_errorAt(i).code == ECLASH && !hex_hasByte(y->image, hex_errorAt(i).addr);
      ASSERT_EQ(okLean, okWhole) << at;
      ASSERT_EQ(errLean, errWhole) << at;
      ASSERT_EQ(extentText(placed), extentText(extentOf(x->image))) << at;
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
        const bool mWhole = ihex_merge(whole, x, force);
        const std::string mergeWhole = errorList();
        hex_clearErrors();
        const bool mLean = ihex_merge(lean, y, force);
        ASSERT_EQ(mLean, mWhole) << at;
        ASSERT_EQ(errorList(), mergeWhole) << at;
      }
      ASSERT_EQ(dumpImage(lean->image, owners), dumpImage(whole->image, owners)) << at;
      ihex_destroy(x);
      ihex_destroy(y);
    }
    ihex_destroy(whole);
    ihex_destroy(lean);
  }
  // The draw must reach both ways of judging a left-out address.
  EXPECT_GT(leftOut, 10000u);
  EXPECT_GT(clashesAtLeftOut, 20u);
}

} // namespace
