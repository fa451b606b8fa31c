#include "ihex/hexdata.h"

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ihex/hex_errno.h"
#include "ihex/testutil.h"

namespace {

using namespace testutil;

struct ImageTest : ::testing::Test {
  void SetUp() override { hex_clearErrors(); }
  void TearDown() override {
    hex_failAllocationsAfter(-1);
    hex_clearErrors();
  }
};

// ---- store and merge rules ------------------------------------------------

constexpr uint64_t A = 0x1234;

// How the slot at A looks before the store or merge under test.
enum SlotState { NO_ROW, NOTE_ONLY, ROW_ONLY, FORCED_REMNANT, PLAIN, FORCED, PRESERVED };

// Builds the slot; except for NO_ROW (whose image holds one byte far away)
// the slot, and the existing byte if any, belong to owner A.
void prepare(hexdata *h, SlotState s, uint8_t existing) {
  switch (s) {
  case NO_ROW:
    hex_storeByte(h, 0x100000, 0x77);
    hex_clearErrors();
    return;
  case NOTE_ONLY:
    break;
  case ROW_ONLY:
    hex_storeByte(h, A + 0x40, 0x99);
    hex_deleteBytes(h, A + 0x40, 1);
    break;
  case FORCED_REMNANT:
    hex_forceByte(h, A, existing);
    hex_deleteBytes(h, A, 1);
    break;
  case PLAIN:
  case PRESERVED:
    hex_storeByte(h, A, existing);
    hex_preserveData(h, A, A, s == PRESERVED);
    break;
  case FORCED:
    hex_forceByte(h, A, existing);
    break;
  }
  hex_setNote(h, A, A, &ownerA);
  hex_clearErrors();
}

TEST_F(ImageTest, StoreDecisionTable) {
  struct Case {
    SlotState setup;
    uint8_t existing;
    bool force;
    int result;
    const char *slot, *errs;
  };
  const Case cases[] = {
      {NOTE_ONLY, 0, false, 1, "5A/A", ""},
      {NOTE_ONLY, 0, true, 1, "5AF/A", ""},
      {ROW_ONLY, 0, false, 1, "5A/A", ""},
      // Intended: a deleted forced byte leaves its mark, inherited by the next byte.
      {FORCED_REMNANT, 0x33, false, 1, "5AF/A", ""},
      {FORCED_REMNANT, 0x33, true, 1, "5AF/A", ""},
      {PLAIN, 0x5A, false, 1, "5A/A", ""},
      {PLAIN, 0x33, false, 0, "33/A", "ECLASH@1234"},
      {PLAIN, 0x33, true, 1, "5AF/A", ""},
      {FORCED, 0x33, false, 0, "33F/A", "ECLASH@1234"},
      {FORCED, 0x5A, false, 1, "5AF/A", ""},
      {FORCED, 0x5A, true, 1, "5AF/A", "ECLOBBERED@1234/A"},
      {FORCED, 0x33, true, 1, "5AF/A", "ECLOBBERED@1234/A"},
      {PRESERVED, 0x5A, false, 0, "5AR/A", "EPRESERVED@1234"},
      {PRESERVED, 0x33, true, 0, "33R/A", "EPRESERVED@1234"},
  };
  // Each case runs as a single store, a one-byte run and a three-byte run
  // whose fresh neighbours must go in regardless.
  for (int mode = 0; mode < 3; ++mode) {
    for (size_t i = 0; i < std::size(cases); ++i) {
      const Case &c = cases[i];
      SCOPED_TRACE(testing::Message() << "case " << i << " mode " << mode);
      Image h = newImage();
      prepare(h.get(), c.setup, c.existing);
      const uint64_t before = hex_getByteCount(h.get());
      const uint8_t run[3] = {0x01, 0x5A, 0x02};
      uint64_t got;
      if (mode == 0)
        got = uint64_t(hex_putByte(h.get(), A, 0x5A, c.force));
      else if (mode == 1)
        got = hex_putBytes(h.get(), A, run + 1, 1, c.force);
      else
        got = hex_putBytes(h.get(), A - 1, run, 3, c.force) - 2;
      EXPECT_EQ(got, uint64_t(c.result));
      EXPECT_EQ(errors(), c.errs);
      EXPECT_EQ(slotText(h.get(), A), c.slot);
      const bool added = c.setup == NOTE_ONLY || c.setup == ROW_ONLY || c.setup == FORCED_REMNANT;
      EXPECT_EQ(hex_getByteCount(h.get()), before + added + (mode == 2 ? 2 : 0));
      EXPECT_EQ(hex_getLoAddr(h.get()), mode == 2 ? A - 1 : A);
      EXPECT_EQ(hex_getHiAddr(h.get()), mode == 2 ? A + 1 : A);
    }
  }
}

TEST_F(ImageTest, MergeDecisionTable) {
  struct Case {
    SlotState d;
    uint8_t existing;
    bool srcForced, srcPreserved, srcNotes, force;
    int result;
    const char *slot, *errs;
    uint64_t count;
  };
  // Source byte: 5A at A (owner B when the source has notes).
  const Case cases[] = {
      // Rows the destination lacks arrive as they are, even under force.
      {NO_ROW, 0, false, false, true, true, 1, "5A/B", "", 2},
      {NO_ROW, 0, true, false, true, false, 1, "5AF/B", "", 2},
      {NO_ROW, 0, false, false, false, true, 1, "5A", "", 2},
      {NOTE_ONLY, 0, false, false, false, true, 1, "5A/A", "", 1},
      {NOTE_ONLY, 0, false, false, true, true, 1, "5A/B", "", 1},
      // Existing rows: force adds HEX_FORCED to every merged byte.
      {ROW_ONLY, 0, false, false, true, false, 1, "5A/B", "", 1},
      {ROW_ONLY, 0, false, false, true, true, 1, "5AF/B", "", 1},
      {ROW_ONLY, 0, false, false, false, true, 1, "5AF/A", "", 1},
      {PLAIN, 0x5A, false, false, true, false, 1, "5A/A", "", 1},
      {PLAIN, 0x5A, false, false, true, true, 1, "5AF/B", "", 1},
      {PLAIN, 0x5A, false, false, false, true, 1, "5AF/A", "", 1},
      {FORCED, 0x5A, false, false, true, false, 1, "5AF/A", "", 1},
      {FORCED, 0x5A, false, false, true, true, 1, "5AF/B", "ECLOBBERED@1234/A", 1},
      {PLAIN, 0x33, false, false, true, false, 0, "33/A", "ECLASH@1234", 1},
      {PLAIN, 0x33, false, false, true, true, 1, "5AF/B", "", 1},
      {PLAIN, 0x33, true, false, false, false, 0, "33/A", "ECLASH@1234", 1},
      {FORCED, 0x33, false, false, true, true, 1, "5AF/B", "ECLOBBERED@1234/A", 1},
      {FORCED, 0x33, false, true, true, true, 1, "5ARF/B", "ECLOBBERED@1234/A", 1},
      {PRESERVED, 0x5A, false, false, true, false, 0, "5AR/A", "EPRESERVED@1234", 1},
      {PRESERVED, 0x5A, false, false, true, true, 0, "5AR/A", "EPRESERVED@1234", 1},
      // Identical bytes pass before the preserved test.
      {PRESERVED, 0x5A, false, true, true, true, 1, "5ARF/B", "", 1},
      // Source bits replace a forced remnant.
      {FORCED_REMNANT, 0x33, false, false, true, false, 1, "5A/B", "", 1},
  };
  for (int move = 0; move < 2; ++move) {
    for (size_t i = 0; i < std::size(cases); ++i) {
      const Case &c = cases[i];
      SCOPED_TRACE(testing::Message() << "case " << i << (move ? " move" : " copy"));
      Image d = newImage(), s = newImage();
      prepare(d.get(), c.d, c.existing);
      (c.srcForced ? hex_forceByte : hex_storeByte)(s.get(), A, 0x5A);
      hex_preserveData(s.get(), A, A, c.srcPreserved);
      if (c.srcNotes)
        hex_setNote(s.get(), A, A, &ownerB);
      hex_clearErrors();

      int r = move ? hex_mergeFrom(d.get(), s.get(), c.force) : copyRows(d.get(), s.get(), c.force);
      EXPECT_EQ(r, c.result);
      EXPECT_EQ(errors(), c.errs);
      EXPECT_EQ(slotText(d.get(), A), c.slot);
      EXPECT_EQ(hex_getByteCount(d.get()), c.count);
      EXPECT_EQ(hex_getByteCount(s.get()), move ? 0u : 1u);
    }
  }
}

// ---- deletion ------------------------------------------------------------

// A merge that clashes on every byte of a large overlap keeps a bounded
// list: the first clashes with their addresses, the rest only counted,
// and the overlap still keeps the older data.
TEST_F(ImageTest, ConflictingMergeKeepsABoundedErrorList) {
  Image d = newImage(), s = newImage();
  const uint64_t n = HEX_ERRORS_KEPT + 0x1000;
  const std::vector<uint8_t> ones(n, 1), twos(n, 2);
  hex_storeBytes(d.get(), 0x100, ones.data(), n);
  hex_storeBytes(s.get(), 0x100, twos.data(), n);
  EXPECT_EQ(copyRows(d.get(), s.get(), 0), 0);
  EXPECT_EQ(hex_errorCount(), HEX_ERRORS_KEPT);
  EXPECT_EQ(hex_errorsDropped(), 0x1000u);
  EXPECT_EQ(hex_errorAt(HEX_ERRORS_KEPT - 1).addr, 0x100 + HEX_ERRORS_KEPT - 1);
  EXPECT_EQ(hex_errno(), uint32_t(ECLASH));
  EXPECT_EQ(hex_getBytes(d.get(), 0x100, n), ones);
}

TEST_F(ImageTest, DeletionRescansBoundsAcrossMissingRows) {
  Image h = newImage();
  const uint8_t two[2] = {1, 2};
  hex_storeBytes(h.get(), 0x10, two, 2);
  hex_storeByte(h.get(), 0x5000, 3);
  hex_forceByte(h.get(), 0x6000, 4);
  hex_setNote(h.get(), 0x6000, 0x6000, &ownerC);
  hex_storeByte(h.get(), 0xFFFFFF00, 5);

  EXPECT_EQ(hex_deleteBytes(h.get(), 0, 0x12), 1);
  EXPECT_EQ(hex_getLoAddr(h.get()), 0x5000u);
  EXPECT_EQ(hex_deleteBytes(h.get(), 0xFFFFFF00, 0x100), 1);
  EXPECT_EQ(hex_getHiAddr(h.get()), 0x6000u);
  // A byte placed by force is deleted with a record; its mark stays.
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x5800, 0x1000), 1);
  EXPECT_EQ(errors(), "ECLOBBERED@6000/C");
  EXPECT_EQ(dump(h.get(), 0x4FFF, 0x6001), "5000=03 6000=-00F/C count 1 5000-5000");
  // Nothing in the run: success, no change.
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x7000, 10), 1);
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x5000, 1), 1);
  EXPECT_EQ(dump(h.get(), 0x5000, 0x5000), "count 0");
  EXPECT_EQ(hex_getLoAddr(h.get()), 0u);
}

TEST_F(ImageTest, DeletionStopsAtPreservedByteAndKeepsBounds) {
  Image h = newImage();
  const uint8_t bytes[4] = {0xA0, 0xA1, 0xA2, 0xA3};
  hex_storeBytes(h.get(), 0x10, bytes, 4);
  hex_preserveData(h.get(), 0x12, 0x12, 1);
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x10, 4), 0);
  EXPECT_EQ(errors(), "EPRESERVED@12");
  // Intended: the bytes before it stay deleted and the bounds are stale.
  EXPECT_EQ(dump(h.get(), 0x10, 0x13), "12=A2R 13=A3 count 2 10-13");
}

// ---- notes -----------------------------------------------------------------

TEST_F(ImageTest, FindNoteRangeAcrossUniformMixedAndMissingRows) {
  Image h = newImage();
  hex_setNote(h.get(), 0x1000, 0x10FF, &ownerA);  // row 0x10 uniform
  hex_setNote(h.get(), 0x1200, 0x127F, &ownerA);  // row 0x12 mixed
  hex_setNote(h.get(), 0x1280, 0x12FF, &ownerB);
  hex_setNote(h.get(), 0x1300, 0x133F, &ownerA);  // row 0x13 partly null
  hex_setNote(h.get(), 0x1410, 0x14EF, &ownerA);  // row 0x14 cut in the middle
  hex_setNote(h.get(), 0x1480, 0x148F, nullptr);
  hex_setNote(h.get(), 0x200000, 0x2000FF, &ownerC); // far away, past missing leaves
  struct Case {
    uint64_t start, end, want;
  };
  const Case cases[] = {
      {0x1000, 0x10FF, 0x10FF}, {0x1000, 0x1200, 0x10FF}, {0x1100, 0x11FF, 0x11FF},
      {0x1100, 0x1280, 0x11FF}, {0x1200, 0x12FF, 0x127F}, {0x1280, 0x12FF, 0x12FF},
      {0x1280, 0x1300, 0x12FF}, {0x1300, 0x13FF, 0x133F}, {0x1340, 0x1410, 0x140F},
      {0x1410, 0x14FF, 0x147F}, {0x1480, 0x148F, 0x148F}, {0x1490, 0x1500, 0x14EF},
      {0x1500, 0x1FFFFF, 0x1FFFFF}, {0x1500, 0xFFFFFFFF, 0x1FFFFF}, {0x200010, 0xFFFFFFFF, 0x2000FF},
      {0x300000, 0xFFFFFFFFFF, 0xFFFFFFFFFF}, {0x10FF, 0x10FF, 0x10FF},
  };
  for (const Case &c : cases)
    EXPECT_EQ(hex_findNoteRange(h.get(), c.start, c.end), c.want) << std::hex << c.start;
  EXPECT_EQ(hex_errorCount(), 0u);
  // Note rows without data rows stay invisible to row walkers.
  EXPECT_EQ(hex_getRow(h.get(), 0x10), nullptr);
  EXPECT_EQ(hex_getByteCount(h.get()), 0u);
}

// ---- queries and refusals ----------------------------------------------------

TEST_F(ImageTest, QueriesOverSparseImage) {
  Image h = newImage();
  hex_storeByte(h.get(), 0, 0x11);
  hex_storeByte(h.get(), 0x12345, 0x22);
  hex_storeByte(h.get(), 0xFFFFFF00, 0x33);
  hex_preserveData(h.get(), 0x12345, 0x12345, 1);

  EXPECT_EQ(hex_findByte(h.get(), 0, 10), 0u);
  EXPECT_EQ(hex_findByte(h.get(), 1, 0xFFFFFFFF), 0x12345u);
  EXPECT_EQ(hex_findByte(h.get(), 0x12346, 0xFFFFFFFF), 0xFFFFFF00u);
  EXPECT_EQ(hex_findByte(h.get(), 0x12346, 0xFFFFFEFF), 0u); // none looks like address 0
  uint64_t at = 0;
  EXPECT_TRUE(hex_nextPresent(h.get(), 0x12346, &at));
  EXPECT_EQ(at, 0xFFFFFF00u);
  EXPECT_FALSE(hex_nextPresent(h.get(), 0xFFFFFF01, &at));
  EXPECT_EQ(hex_hasAnyByte(h.get(), 0x12300, 0x45), 0);
  EXPECT_EQ(hex_hasAnyByte(h.get(), 0x12300, 0x46), 1);
  EXPECT_EQ(hex_hasAnyByte(h.get(), 0x12345, 0), 0);
  EXPECT_EQ(hex_anyPreserved(h.get(), 0x12000, 0x345), 0);
  EXPECT_EQ(hex_anyPreserved(h.get(), 0x12000, 0x346), 1);
  EXPECT_EQ(hex_errorCount(), 0u);
  EXPECT_EQ(hex_getBytes(h.get(), 0xFFFFFEFE, 4), (std::vector<uint8_t>{0, 0, 0x33, 0}));
  EXPECT_EQ(errors(), "ENODATA ENODATA ENODATA");
}

// Every address is its own slot, and a walk over the whole 64-bit space
// costs what the image holds, not what the range spans.
TEST_F(ImageTest, WholeAddressSpaceOnASparseImage) {
  Image h = newImage();
  hexdata *H = h.get();
  const uint64_t top = UINT64_MAX, far = uint64_t(1) << 40, half = uint64_t(1) << 63;
  for (uint64_t a : {uint64_t(0x10), far, half, top - 0xFF, top})
    hex_storeByte(H, a, uint8_t(a >> 56 | 1));
  hex_setNote(H, top - 0xFF, top, &ownerA);
  hex_preserveData(H, top, top, 1);
  EXPECT_EQ(present(H), "10=01 10000000000=01 8000000000000000=81 FFFFFFFFFFFFFF00=FF/A "
                        "FFFFFFFFFFFFFFFF=FFR/A");
  EXPECT_EQ(bounds(H), "count 5 10-FFFFFFFFFFFFFFFF");
  EXPECT_EQ(hex_hasByte(H, 0), 0);
  EXPECT_EQ(hex_findNoteRange(H, 0, top), top - 0x100);
  EXPECT_EQ(hex_findNoteRange(H, top - 0xFF, top), top);
  EXPECT_EQ(hex_anyPreserved(H, 0, top), 0); // the run ends just below the top
  EXPECT_EQ(hex_anyPreserved(H, 1, top), 1);
  EXPECT_EQ(hex_anyPreserved(H, 0x11, top - 0x11), 0);
  EXPECT_EQ(hex_hasAnyByte(H, far + 1, half - far - 1), 0);
  EXPECT_EQ(hex_errorCount(), 0u);
  // Deleting the byte at 2^63 leaves the one at 0x10; deleting the rest of
  // the space up to the preserved top byte moves both bounds.
  EXPECT_EQ(hex_deleteBytes(H, half, 1), 1);
  EXPECT_EQ(hex_deleteBytes(H, 0, 0x11), 1);
  EXPECT_EQ(bounds(H), "count 3 10000000000-FFFFFFFFFFFFFFFF");
  EXPECT_EQ(hex_deleteBytes(H, 1, top), 0);
  EXPECT_EQ(errors(), "EPRESERVED@FFFFFFFFFFFFFFFF");
  EXPECT_EQ(present(H), "FFFFFFFFFFFFFFFF=FFR/A");
}

TEST_F(ImageTest, RefusedArgumentsChangeNothing) {
  Image h = newImage(), e = newImage();
  hexdata *H = h.get(), *E = e.get();
  hex_storeByte(H, 0x10, 0x11);
  const std::string before = dump(H, 0, 0x20);
  // Each operation's results add up to 0 when all are refused.
  const std::pair<std::function<uint64_t()>, const char *> cases[] = {
      {[&] { return hex_getByte(H, 0x12); }, "ENODATA"},
      {[&] { return hex_getLoAddr(E) + hex_getHiAddr(E); }, "ENODATA ENODATA"},
      {[&] { return hex_findByte(H, 5, 4) + hex_findNoteRange(H, 2, 1) + hex_preserveData(H, 5, 4, 1); },
       "EARG EARG EARG"},
      {[&] { return hex_anyPreserved(H, 0, 0) + hex_deleteBytes(H, 0x10, 0); }, "EARG EARG"},
      {[&] {
         return copyRows(nullptr, E, 0) + hex_deleteBytes(nullptr, 0x10, 1) +
                hex_storeBytes(H, 0, nullptr, 1) + (hex_getRow(nullptr, 0) != nullptr);
       },
       "ENULL ENULL ENULL ENULL"},
      {[&] { return copyRows(H, E, 1) != 1; }, ""}, // an empty source
  };
  for (const auto &[op, errs] : cases) {
    hex_clearErrors();
    EXPECT_EQ(op(), 0u) << errs;
    EXPECT_EQ(errors(), errs);
    EXPECT_EQ(dump(H, 0, 0x20), before);
  }
}

TEST_F(ImageTest, ExhaustedHeapIsRecorded) {
  Image d = newImage(), s = newImage();
  hexdata *D = d.get(), *S = s.get();
  hex_storeByte(S, 0x300, 1);
  hex_storeByte(D, 0x10, 1);
  const uint8_t three[3] = {1, 2, 3};
  hex_failAllocationsAfter(0);
  const std::pair<std::function<uint64_t()>, const char *> cases[] = {
      {[&] { return hex_storeByte(D, 0x1000, 1); }, "EMEMORY"},
      {[&] { return hex_storeBytes(D, 0x10FF, three, 3); }, "EMEMORY EMEMORY EMEMORY"},
      {[&] { return hex_setNote(D, 0x2000, 0x2001, &ownerA); }, "EMEMORY"},
      {[&] { return copyRows(D, S, 0); }, "EMEMORY"},
      {[&] { return hex_create() != nullptr; }, "EMEMORY"},
  };
  for (const auto &[op, errs] : cases) {
    hex_clearErrors();
    EXPECT_EQ(op(), 0u) << errs;
    EXPECT_EQ(errors(), errs);
  }
  hex_failAllocationsAfter(-1);
  // Nothing was stored; the merge widened the bounds before it failed.
  EXPECT_EQ(dump(D, 0, 0x3FF), "10=01 count 1 10-300");
}

// ---- a naive model -----------------------------------------------------------

// Every address as its own map entry; rows and note rows as sets of row
// numbers, computed here by division, not by the image's own arithmetic.
// The rules are applied byte by byte, straight from their wording.
uint64_t rowNumber(uint64_t a) { return a / 256; }

struct Model {
  struct Byte {
    uint8_t data = 0, attr = 0;
    const void *note = nullptr;
  };
  std::map<uint64_t, Byte> m;
  std::set<uint64_t> rows, noteRows;
  uint64_t count = 0, lo = 0, hi = 0;
  std::string errs;

  Byte at(uint64_t a) const {
    auto it = m.find(a);
    return it == m.end() ? Byte() : it->second;
  }
  int err(const char *name, uint64_t a, const void *n = nullptr) {
    addError(errs, hex_error{0, name, a, n, 0, 0, 0, 0});
    return 0;
  }
  static bool present(const std::pair<const uint64_t, Byte> &e) { return e.second.attr & HEX_PRESENT; }
  int store(uint64_t a, uint8_t v, bool force) {
    rows.insert(rowNumber(a));
    Byte &b = m[a];
    if (b.attr & HEX_PRESERVED)
      return err("EPRESERVED", a);
    if ((b.attr & HEX_PRESENT) && !force)
      return b.data == v ? 1 : err("ECLASH", a);
    if ((b.attr & HEX_PRESENT) && (b.attr & HEX_FORCED))
      err("ECLOBBERED", a, b.note);
    if (!(b.attr & HEX_PRESENT)) {
      lo = count ? std::min(lo, a) : a;
      hi = count ? std::max(hi, a) : a;
      ++count;
    }
    b.data = v;
    b.attr |= HEX_PRESENT | (force ? HEX_FORCED : 0); // a deleted byte's forced mark stays
    return 1;
  }
  void setNote(uint64_t s, uint64_t e, const void *n) {
    for (uint64_t a = s; a <= e; ++a) {
      noteRows.insert(rowNumber(a));
      m[a].note = n;
    }
  }
  void preserve(uint64_t s, uint64_t e, bool on) {
    for (auto it = m.lower_bound(s); it != m.end() && it->first <= e; ++it)
      if (present(*it))
        it->second.attr = uint8_t(on ? it->second.attr | HEX_PRESERVED : it->second.attr & ~HEX_PRESERVED);
  }
  int del(uint64_t s, uint64_t n) {
    const uint64_t e = s + n - 1, before = count;
    for (auto it = m.lower_bound(s); it != m.end() && it->first <= e; ++it) {
      Byte &b = it->second;
      if (!present(*it))
        continue;
      if (b.attr & HEX_PRESERVED) // stops here; the bounds are left as they were
        return err("EPRESERVED", it->first);
      if (b.attr & HEX_FORCED)
        err("ECLOBBERED", it->first, b.note);
      b.attr &= uint8_t(~HEX_PRESENT);
      b.data = 0;
      --count;
    }
    if (count == before)
      return 1;
    if (!count)
      lo = hi = 0;
    else if (lo >= s && lo <= e)
      lo = std::find_if(m.upper_bound(e), m.end(), present)->first;
    if (count && hi >= s && hi <= e)
      hi = std::find_if(std::make_reverse_iterator(m.lower_bound(s)), m.rend(), present)->first;
    return 1;
  }
  int merge(const Model &s, bool force) {
    if (!s.count)
      return 1;
    if (!count || s.lo < lo)
      lo = s.lo;
    hi = std::max(hi, s.hi);
    int ok = 1;
    // Only rows within the source's bounds take part.
    for (auto it = s.rows.lower_bound(rowNumber(s.lo)); it != s.rows.upper_bound(rowNumber(s.hi)); ++it) {
      const uint64_t row = *it;
      const bool sNotes = s.noteRows.count(row), hadRow = rows.count(row);
      noteRows.insert(row);
      rows.insert(row);
      for (uint64_t c = 0, a = row * 256; c < 256; ++c, ++a) {
        const Byte sb = s.at(a);
        Byte &d = m[a];
        if (!hadRow) { // a row of notes only is lacking too; it arrives as it is, even under force
          count += sb.attr & HEX_PRESENT;
          d = {sb.data, sb.attr, sNotes ? sb.note : d.note};
        } else if (!(sb.attr & HEX_PRESENT)) {
          continue;
        } else if (d.data == sb.data && d.attr == sb.attr) { // before the preserved test
          d.attr |= force ? HEX_FORCED : 0;
          d.note = force && sNotes ? sb.note : d.note;
        } else if (d.attr & HEX_PRESERVED) {
          ok = err("EPRESERVED", a);
        } else if ((d.attr & HEX_PRESENT) && !force) {
          ok = d.data == sb.data ? ok : err("ECLASH", a);
        } else {
          if (d.attr & HEX_PRESENT && d.attr & HEX_FORCED)
            err("ECLOBBERED", a, d.note);
          count += !(d.attr & HEX_PRESENT);
          d = {sb.data, uint8_t(sb.attr | (force ? HEX_FORCED : 0)), sNotes ? sb.note : d.note};
        }
      }
    }
    return ok;
  }
};

// Address clusters: near 0, across a 16 KiB edge, across the 4 GiB edge,
// at 2^40 (a row number past 32 bits), across a 4 GiB edge high up, and at
// the very top of the address space. A store in one cluster that lands in
// another shows as a difference from the model.
constexpr uint64_t kSpan = 0x400;
constexpr uint64_t kBases[] = {0x0,          0x3F80,        0xFFFFFE00,
                               uint64_t(1) << 40, (uint64_t(1) << 56) - 0x200, 0 - kSpan};

void expectSame(const hexdata *h, const Model &md) {
  for (uint64_t base : kBases)
    for (uint64_t i = 0; i < kSpan; ++i) {
      const uint64_t a = base + i;
      const hex_row *r = hex_getRow(h, hex_rowOf(a));
      ASSERT_EQ(r != nullptr, md.rows.count(rowNumber(a)) > 0) << std::hex << a;
      const Model::Byte want = md.at(a);
      if ((r ? r->data[a & 0xFF] : 0) != want.data || (r ? hex_rowAttr(r, a & 0xFF) : 0) != want.attr ||
          hex_getNote(h, a) != want.note) {
        ASSERT_EQ(slotText(h, a), slotText(want.data, want.attr, want.note)) << std::hex << a;
      }
    }
  std::string want;
  addBounds(want, md.count, md.lo, md.hi);
  ASSERT_EQ(bounds(h), want);
}

// An image and its model, changed together.
struct Pair {
  Image h = newImage();
  Model md;
  // Each change returns 1 when the image's result is the model's.
  uint64_t put(uint64_t a, const std::vector<uint8_t> &bytes, bool force) {
    uint64_t want = 0;
    for (uint64_t i = 0; i < bytes.size(); ++i)
      want += uint64_t(md.store(a + i, bytes[i], force));
    return want == (bytes.size() == 1 ? uint64_t(hex_putByte(h.get(), a, bytes[0], force))
                                      : hex_putBytes(h.get(), a, bytes.data(), bytes.size(), force));
  }
  uint64_t note(uint64_t s, uint64_t e, const void *o) {
    md.setNote(s, e, o);
    return uint64_t(hex_setNote(h.get(), s, e, o));
  }
  uint64_t preserve(uint64_t s, uint64_t e, bool on) {
    md.preserve(s, e, on);
    return uint64_t(hex_preserveData(h.get(), s, e, on));
  }
  uint64_t merge(Pair &src, bool move, bool force) {
    const int r = move ? hex_mergeFrom(h.get(), src.h.get(), force) : copyRows(h.get(), src.h.get(), force);
    return uint64_t(r == md.merge(src.md, force));
  }
};

TEST_F(ImageTest, RandomOperationsMatchNaiveModel) {
  for (unsigned seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    auto pick = [&](uint64_t n) { return uint64_t(rng() % n); };
    // Runs of up to 255 bytes from here stay inside their cluster.
    auto addr = [&] { return kBases[pick(std::size(kBases))] + pick(kSpan - 0x100); };
    auto bytes = [&](uint64_t n) { // few values, so equal bytes are common
      std::vector<uint8_t> b(n);
      std::generate(b.begin(), b.end(), [&] { return uint8_t(pick(3)); });
      return b;
    };
    const void *owners[] = {nullptr, &ownerA, &ownerB, &ownerC};
    Pair p;
    // Half of the operations go where the previous one went: a store onto
    // what was just deleted, preserved or stored by the other rule.
    for (uint64_t step = 0, a = 0; step < 200; ++step) {
      hex_clearErrors();
      p.md.errs.clear();
      uint64_t n = 1 + pick(pick(4) ? 16 : 255), got = 0, want = 1;
      a = step && pick(2) ? a : addr();
      switch (pick(9)) {
      case 0:
      case 1:
        got = p.put(a, bytes(n), pick(3) == 0);
        break;
      case 2:
        got = p.note(a, a + n - 1, owners[pick(4)]);
        break;
      case 3:
        got = p.preserve(a, a + pick(8), pick(4) != 0);
        break;
      case 4: { // some runs from the low bound or up to the high bound
        const uint64_t from = !p.md.count || pick(2) ? a : pick(2) ? p.md.lo : p.md.hi - std::min(n - 1, p.md.hi);
        got = uint64_t(hex_deleteBytes(p.h.get(), from, n));
        want = uint64_t(p.md.del(from, n));
        break;
      }
      case 5: {
        // Move the whole image into a fresh one (rows arrive as they are,
        // row counts must add up), then merge a copy of it back, every row
        // meeting its identical self.
        Pair fresh, copy;
        got = fresh.merge(p, true, pick(2));
        got += copy.merge(fresh, false, false);
        got += fresh.merge(copy, pick(2), pick(4) == 0);
        want = 3;
        p = std::move(fresh);
        break;
      }
      default: {
        // A small source image, merged by copy or by move.
        Pair s;
        for (int k = 0, runs = 1 + int(pick(3)); k < runs; ++k) {
          uint64_t sa = addr(), sn = 1 + pick(200);
          s.put(sa, bytes(sn), pick(4) == 0);
          if (pick(2))
            s.note(sa, sa + sn - 1, owners[1 + pick(3)]);
          if (pick(4) == 0)
            s.preserve(sa, sa + sn / 2, true);
        }
        hex_clearErrors();
        got = p.merge(s, pick(2), pick(3) == 0);
        break;
      }
      }
      ASSERT_EQ(errors(), p.md.errs) << "step " << step;
      ASSERT_EQ(got, want) << "step " << step;
      ASSERT_NO_FATAL_FAILURE(expectSame(p.h.get(), p.md)) << "step " << step;
      uint64_t probe = addr(), end = probe + std::min<uint64_t>(pick(0x300), UINT64_MAX - probe), nr = probe;
      while (nr < end && p.md.at(nr + 1).note == p.md.at(probe).note)
        ++nr;
      ASSERT_EQ(hex_findNoteRange(p.h.get(), probe, end), nr) << "step " << step;
    }
  }
}

} // namespace
