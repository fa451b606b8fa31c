#include "ihex/hexdata.h"

#include <cinttypes>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ihex/hex_errno.h"

namespace {

// Owners used as notes; only their identity matters.
int ownerA, ownerB, ownerC;

std::string noteName(const void *n) {
  if (!n)
    return "-";
  if (n == &ownerA)
    return "A";
  if (n == &ownerB)
    return "B";
  if (n == &ownerC)
    return "C";
  return "?";
}

std::string attrName(uint8_t a) {
  std::string s;
  s += (a & HEX_PRESENT) ? 'P' : '.';
  s += (a & HEX_PRESERVED) ? 'R' : '.';
  s += (a & HEX_FORCED) ? 'F' : '.';
  return s;
}

// Canonical text of an image: one line per address whose attribute bits
// or note are set, then the count and bounds.
void dumpByte(std::string &out, uint64_t a, uint8_t d, uint8_t at, const void *n) {
  char line[80];
  if (at || n) {
    std::snprintf(line, sizeof line, "%08" PRIX64 " %02X %s %s\n", a, d, attrName(at).c_str(),
                  noteName(n).c_str());
    out += line;
  }
}

void dumpBounds(std::string &out, uint64_t count, uint64_t lo, uint64_t hi) {
  char line[80];
  std::snprintf(line, sizeof line, "count %" PRIu64, count);
  out += line;
  if (count) {
    std::snprintf(line, sizeof line, " lo %" PRIX64 " hi %" PRIX64, lo, hi);
    out += line;
  }
}

std::string dump(const hexdata *h, uint64_t lo, uint64_t hi) {
  std::string out;
  for (uint64_t a = lo; a <= hi; ++a) {
    const hex_row *r = hex_getRow(h, hex_rowOf(a));
    dumpByte(out, a, r ? r->data[a & 0xFF] : 0, r ? r->attr[a & 0xFF] : 0, hex_getNote(h, a));
  }
  uint64_t count = hex_getByteCount(h);
  dumpBounds(out, count, count ? hex_getLoAddr(h) : 0, count ? hex_getHiAddr(h) : 0);
  return out;
}

// The error list as text: "CODE@addr" per record, "/owner" for clobbers.
void addRecord(std::string &out, const char *name, uint64_t addr, bool clobber, const void *note) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s%s@%" PRIX64, out.empty() ? "" : " ", name, addr);
  out += buf;
  if (clobber) {
    out += '/';
    out += noteName(note);
  }
}

std::string errors() {
  std::string out;
  for (uint32_t i = 0; i < hex_errorCount(); ++i) {
    hex_error e = hex_errorAt(i);
    addRecord(out, e.name, e.addr, e.code == ECLOBBERED, e.note);
  }
  return out;
}

using Image = std::unique_ptr<hexdata, void (*)(hexdata *)>;
Image make() { return Image(hex_create(), hex_destroy); }

struct ImageTest : ::testing::Test {
  void SetUp() override { hex_clearErrors(); }
  void TearDown() override {
    hex_failAllocationsAfter(-1);
    hex_clearErrors();
  }
};

// ---- store rules --------------------------------------------------------

constexpr uint64_t A = 0x1234;

// How the slot at A looks before the store under test.
enum SlotState { NONE, ROW_ONLY, FORCED_REMNANT, PLAIN, FORCED, PRESERVED };

// Builds the slot; the existing byte (if any) belongs to owner A.
void prepare(hexdata *h, SlotState s, uint8_t existing) {
  switch (s) {
  case NONE:
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
    if (s == PRESERVED)
      hex_preserveData(h, A, A, 1);
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
    uint8_t data;
    const char *attr;
    const char *errs;
  };
  const Case cases[] = {
      {NONE, 0, false, 1, 0x5A, "P..", ""},
      {NONE, 0, true, 1, 0x5A, "P.F", ""},
      {ROW_ONLY, 0, false, 1, 0x5A, "P..", ""},
      // Intended: a deleted forced byte leaves its mark, inherited by the next byte.
      {FORCED_REMNANT, 0x33, false, 1, 0x5A, "P.F", ""},
      {FORCED_REMNANT, 0x33, true, 1, 0x5A, "P.F", ""},
      {PLAIN, 0x5A, false, 1, 0x5A, "P..", ""},
      {PLAIN, 0x33, false, 0, 0x33, "P..", "ECLASH@1234"},
      {PLAIN, 0x33, true, 1, 0x5A, "P.F", ""},
      {FORCED, 0x33, false, 0, 0x33, "P.F", "ECLASH@1234"},
      {FORCED, 0x5A, false, 1, 0x5A, "P.F", ""},
      {FORCED, 0x5A, true, 1, 0x5A, "P.F", "ECLOBBERED@1234/A"},
      {FORCED, 0x33, true, 1, 0x5A, "P.F", "ECLOBBERED@1234/A"},
      {PRESERVED, 0x5A, false, 0, 0x5A, "PR.", "EPRESERVED@1234"},
      {PRESERVED, 0x33, true, 0, 0x33, "PR.", "EPRESERVED@1234"},
  };
  // Each case runs as a single store, a one-byte run and a three-byte run
  // whose fresh neighbours must go in regardless.
  for (int mode = 0; mode < 3; ++mode) {
    for (size_t i = 0; i < std::size(cases); ++i) {
      const Case &c = cases[i];
      SCOPED_TRACE(testing::Message() << "case " << i << " mode " << mode);
      Image h = make();
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
      const hex_row *r = hex_getRow(h.get(), hex_rowOf(A));
      ASSERT_NE(r, nullptr);
      EXPECT_EQ(r->data[A & 0xFF], c.data);
      EXPECT_EQ(attrName(r->attr[A & 0xFF]), c.attr);
      EXPECT_EQ(hex_getNote(h.get(), A), &ownerA);
      const bool added = c.setup == NONE || c.setup == ROW_ONLY || c.setup == FORCED_REMNANT;
      EXPECT_EQ(hex_getByteCount(h.get()), before + added + (mode == 2 ? 2 : 0));
      EXPECT_EQ(hex_getLoAddr(h.get()), mode == 2 ? A - 1 : A);
      EXPECT_EQ(hex_getHiAddr(h.get()), mode == 2 ? A + 1 : A);
    }
  }
}

// ---- merge rules --------------------------------------------------------

enum DSetup { D_NO_ROW, D_NOTE_ONLY, D_ABSENT, D_SAME, D_PLAIN_SAME_DATA_FORCED, D_DIFF,
              D_DIFF_FORCED, D_PRESERVED, D_PRESERVED_SAME, D_REMNANT };

TEST_F(ImageTest, MergeDecisionTable) {
  struct Case {
    DSetup d;
    bool srcForced, srcPreserved, srcNotes, force;
    int result;
    uint8_t data;
    const char *attr, *note, *errs;
    uint64_t count;
  };
  // Source byte: 5A at A (owner B when the source has notes). Destination
  // byte, when present, belongs to owner A; D_ABSENT keeps a byte at A+1.
  const Case cases[] = {
      // Rows the destination lacks arrive as they are, even under force.
      {D_NO_ROW, false, false, true, true, 1, 0x5A, "P..", "B", "", 1},
      {D_NO_ROW, true, false, true, false, 1, 0x5A, "P.F", "B", "", 1},
      {D_NO_ROW, false, false, false, true, 1, 0x5A, "P..", "-", "", 1},
      {D_NOTE_ONLY, false, false, false, true, 1, 0x5A, "P..", "A", "", 1},
      {D_NOTE_ONLY, false, false, true, true, 1, 0x5A, "P..", "B", "", 1},
      // Existing rows: force adds HEX_FORCED to every merged byte.
      {D_ABSENT, false, false, true, false, 1, 0x5A, "P..", "B", "", 2},
      {D_ABSENT, false, false, true, true, 1, 0x5A, "P.F", "B", "", 2},
      {D_ABSENT, false, false, false, true, 1, 0x5A, "P.F", "A", "", 2},
      {D_SAME, false, false, true, false, 1, 0x5A, "P..", "A", "", 1},
      {D_SAME, false, false, true, true, 1, 0x5A, "P.F", "B", "", 1},
      {D_SAME, false, false, false, true, 1, 0x5A, "P.F", "A", "", 1},
      {D_PLAIN_SAME_DATA_FORCED, false, false, true, false, 1, 0x5A, "P.F", "A", "", 1},
      {D_PLAIN_SAME_DATA_FORCED, false, false, true, true, 1, 0x5A, "P.F", "B", "ECLOBBERED@1234/A", 1},
      {D_DIFF, false, false, true, false, 0, 0x33, "P..", "A", "ECLASH@1234", 1},
      {D_DIFF, false, false, true, true, 1, 0x5A, "P.F", "B", "", 1},
      {D_DIFF, true, false, false, false, 0, 0x33, "P..", "A", "ECLASH@1234", 1},
      {D_DIFF_FORCED, false, false, true, true, 1, 0x5A, "P.F", "B", "ECLOBBERED@1234/A", 1},
      {D_DIFF_FORCED, false, true, true, true, 1, 0x5A, "PRF", "B", "ECLOBBERED@1234/A", 1},
      {D_PRESERVED, false, false, true, false, 0, 0x5A, "PR.", "A", "EPRESERVED@1234", 1},
      {D_PRESERVED, false, false, true, true, 0, 0x5A, "PR.", "A", "EPRESERVED@1234", 1},
      // Identical bytes pass before the preserved test.
      {D_PRESERVED_SAME, false, true, true, true, 1, 0x5A, "PRF", "B", "", 1},
      // Source bits replace a forced remnant.
      {D_REMNANT, false, false, true, false, 1, 0x5A, "P..", "B", "", 1},
  };
  for (int move = 0; move < 2; ++move) {
    for (size_t i = 0; i < std::size(cases); ++i) {
      const Case &c = cases[i];
      SCOPED_TRACE(testing::Message() << "case " << i << (move ? " move" : " copy"));
      Image d = make(), s = make();
      switch (c.d) {
      case D_NO_ROW:
        hex_storeByte(d.get(), 0x100000, 0x77);
        break;
      case D_NOTE_ONLY:
        hex_setNote(d.get(), A, A, &ownerA);
        break;
      case D_ABSENT:
        hex_storeByte(d.get(), A + 1, 0x77);
        break;
      case D_SAME:
        hex_storeByte(d.get(), A, 0x5A);
        break;
      case D_PLAIN_SAME_DATA_FORCED:
        hex_forceByte(d.get(), A, 0x5A);
        break;
      case D_DIFF:
        hex_storeByte(d.get(), A, 0x33);
        break;
      case D_DIFF_FORCED:
        hex_forceByte(d.get(), A, 0x33);
        break;
      case D_PRESERVED:
        hex_storeByte(d.get(), A, 0x5A);
        hex_forceByte(d.get(), A + 1, 0x11);
        hex_preserveData(d.get(), A, A + 1, 1);
        break;
      case D_PRESERVED_SAME:
        hex_storeByte(d.get(), A, 0x5A);
        hex_preserveData(d.get(), A, A, 1);
        break;
      case D_REMNANT:
        hex_forceByte(d.get(), A, 0x33);
        hex_deleteBytes(d.get(), A, 1);
        break;
      }
      if (c.d != D_NO_ROW && c.d != D_NOTE_ONLY)
        hex_setNote(d.get(), A, A, &ownerA);
      (c.srcForced ? hex_forceByte : hex_storeByte)(s.get(), A, 0x5A);
      if (c.srcPreserved)
        hex_preserveData(s.get(), A, A, 1);
      if (c.srcNotes)
        hex_setNote(s.get(), A, A, &ownerB);
      if (c.d == D_PRESERVED) // the bystander is unaffected by its merge partner's absence
        hex_setNote(d.get(), A + 1, A + 1, &ownerA);
      hex_clearErrors();

      int r = move ? hex_mergeFrom(d.get(), s.get(), c.force) : copyRows(d.get(), s.get(), c.force);
      EXPECT_EQ(r, c.result);
      EXPECT_EQ(errors(), c.errs);
      const hex_row *row = hex_getRow(d.get(), hex_rowOf(A));
      ASSERT_NE(row, nullptr);
      EXPECT_EQ(row->data[A & 0xFF], c.data);
      EXPECT_EQ(attrName(row->attr[A & 0xFF]), c.attr);
      EXPECT_EQ(noteName(hex_getNote(d.get(), A)), c.note);
      uint64_t extra = (c.d == D_NO_ROW || c.d == D_PRESERVED) ? 1 : 0;
      EXPECT_EQ(hex_getByteCount(d.get()), c.count + extra);
      EXPECT_EQ(hex_getByteCount(s.get()), move ? 0u : 1u);
    }
  }
}

TEST_F(ImageTest, MergeWidensBoundsAndCountsWholeRows) {
  Image d = make(), s = make();
  std::vector<uint8_t> bytes(700, 0xAB);
  hex_storeBytes(d.get(), 0x5000, bytes.data(), 16);
  hex_storeBytes(s.get(), 0x4F00, bytes.data(), bytes.size()); // overlaps d's 16 bytes
  hex_storeByte(s.get(), 0xFFFFFF00, 1);
  ASSERT_EQ(hex_mergeFrom(d.get(), s.get(), 0), 1);
  EXPECT_EQ(hex_getByteCount(d.get()), 701u);
  EXPECT_EQ(hex_getLoAddr(d.get()), 0x4F00u);
  EXPECT_EQ(hex_getHiAddr(d.get()), 0xFFFFFF00u);
  EXPECT_EQ(hex_getRow(s.get(), 0x4F), nullptr);
  // An empty source changes nothing.
  Image e = make();
  EXPECT_EQ(copyRows(d.get(), e.get(), 1), 1);
  EXPECT_EQ(hex_getByteCount(d.get()), 701u);
  EXPECT_EQ(copyRows(nullptr, e.get(), 0), 0);
  EXPECT_EQ(errors(), "ENULL@0");
}

// ---- deletion ------------------------------------------------------------

TEST_F(ImageTest, DeletionRescansBoundsAcrossMissingRows) {
  Image h = make();
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
  EXPECT_EQ(dump(h.get(), 0x4FFF, 0x6001), "00005000 03 P.. -\n"
                                           "00006000 00 ..F C\n"
                                           "count 1 lo 5000 hi 5000");
  // Nothing in the run: success, no change.
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x7000, 10), 1);
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x5000, 1), 1);
  EXPECT_EQ(dump(h.get(), 0x5000, 0x5000), "count 0");
  EXPECT_EQ(hex_getLoAddr(h.get()), 0u);
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x5000, 0), 0);
  EXPECT_EQ(hex_deleteBytes(nullptr, 0x5000, 1), 0);
  EXPECT_EQ(hex_errno(), uint32_t(ENULL));
}

TEST_F(ImageTest, DeletionStopsAtPreservedByteAndKeepsBounds) {
  Image h = make();
  uint8_t bytes[16];
  for (int i = 0; i < 16; ++i)
    bytes[i] = uint8_t(0xA0 + i);
  hex_storeBytes(h.get(), 0x10, bytes, 16);
  hex_preserveData(h.get(), 0x18, 0x18, 1);
  EXPECT_EQ(hex_deleteBytes(h.get(), 0x10, 16), 0);
  EXPECT_EQ(errors(), "EPRESERVED@18");
  // Intended: the bytes before it stay deleted and the bounds are stale.
  EXPECT_EQ(hex_getByteCount(h.get()), 8u);
  EXPECT_EQ(hex_getLoAddr(h.get()), 0x10u);
  EXPECT_EQ(hex_getHiAddr(h.get()), 0x1Fu);
  EXPECT_FALSE(hex_hasByte(h.get(), 0x17));
  EXPECT_TRUE(hex_hasByte(h.get(), 0x19));
}

// ---- notes -----------------------------------------------------------------

TEST_F(ImageTest, FindNoteRangeAcrossUniformMixedAndMissingRows) {
  Image h = make();
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
  EXPECT_EQ(hex_findNoteRange(h.get(), 2, 1), 0u);
  EXPECT_EQ(errors(), "EARG@0");
  // Note rows without data rows stay invisible to row walkers.
  EXPECT_EQ(hex_getRow(h.get(), 0x10), nullptr);
  EXPECT_EQ(hex_getByteCount(h.get()), 0u);
}

// ---- queries ---------------------------------------------------------------

TEST_F(ImageTest, QueriesOverSparseImage) {
  Image h = make();
  hex_storeByte(h.get(), 0, 0x11);
  hex_storeByte(h.get(), 0x12345, 0x22);
  hex_storeByte(h.get(), 0xFFFFFF00, 0x33);
  hex_preserveData(h.get(), 0x12345, 0x12345, 1);
  hex_clearErrors();

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

  std::vector<uint8_t> got = hex_getBytes(h.get(), 0xFFFFFEFE, 4);
  EXPECT_EQ(got, (std::vector<uint8_t>{0, 0, 0x33, 0}));
  EXPECT_EQ(errors(), "ENODATA@0 ENODATA@0 ENODATA@0");
  hex_clearErrors();
  EXPECT_EQ(hex_getByte(h.get(), 0x12344), 0);
  EXPECT_EQ(hex_anyPreserved(h.get(), 0, 0), 0);
  EXPECT_EQ(hex_findByte(h.get(), 5, 4), 0u);
  EXPECT_EQ(hex_preserveData(h.get(), 5, 4, 1), 0);
  EXPECT_EQ(errors(), "ENODATA@0 EARG@0 EARG@0 EARG@0");

  hex_clear(h.get());
  hex_clearErrors();
  EXPECT_EQ(hex_getLoAddr(h.get()), 0u);
  EXPECT_EQ(hex_getHiAddr(h.get()), 0u);
  EXPECT_EQ(errors(), "ENODATA@0 ENODATA@0");
  EXPECT_EQ(hex_storeBytes(h.get(), 0, nullptr, 1), 0u);
  EXPECT_EQ(hex_getRow(nullptr, 0), nullptr);
  EXPECT_EQ(hex_errno(), uint32_t(ENULL));
}

TEST_F(ImageTest, ExhaustedHeapIsRecorded) {
  Image d = make(), s = make();
  hex_storeByte(s.get(), 0x300, 1);
  hex_storeByte(d.get(), 0x10, 1);
  const uint8_t three[3] = {1, 2, 3};
  hex_clearErrors();
  hex_failAllocationsAfter(0);
  struct Case {
    const char *what;
    int (*op)(hexdata *d, hexdata *s, const uint8_t *b);
    const char *errs;
  };
  const Case cases[] = {
      {"store", [](hexdata *d, hexdata *, const uint8_t *) { return hex_storeByte(d, 0x1000, 1); },
       "EMEMORY@0"},
      {"run", [](hexdata *d, hexdata *, const uint8_t *b) { return int(hex_storeBytes(d, 0x10FF, b, 3)); },
       "EMEMORY@0 EMEMORY@0 EMEMORY@0"},
      {"note", [](hexdata *d, hexdata *, const uint8_t *) { return hex_setNote(d, 0x2000, 0x2001, &ownerA); },
       "EMEMORY@0"},
      {"merge", [](hexdata *d, hexdata *s, const uint8_t *) { return copyRows(d, s, 0); }, "EMEMORY@0"},
      {"create", [](hexdata *, hexdata *, const uint8_t *) { return hex_create() != nullptr ? 1 : 0; },
       "EMEMORY@0"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    hex_clearErrors();
    EXPECT_EQ(c.op(d.get(), s.get(), three), 0);
    EXPECT_EQ(errors(), c.errs);
  }
  hex_failAllocationsAfter(-1);
  // Nothing was stored; the merge widened the bounds before it failed.
  EXPECT_EQ(dump(d.get(), 0, 0x3FF), "00000010 01 P.. -\ncount 1 lo 10 hi 300");
}

// ---- a naive model -----------------------------------------------------------

// Every address as its own map entry; rows and note rows as sets of row
// numbers. The rules are applied byte by byte, straight from their wording.
struct Model {
  struct Byte {
    uint8_t data = 0, attr = 0;
    const void *note = nullptr;
  };
  std::map<uint64_t, Byte> m;
  std::set<uint32_t> rows, noteRows;
  uint64_t count = 0, lo = 0, hi = 0;
  std::string errs;

  void err(const char *name, uint64_t a, const void *n = nullptr, bool withNote = false) {
    addRecord(errs, name, a, withNote, n);
  }
  void grow(uint64_t a) {
    if (count == 0)
      lo = hi = a;
    lo = std::min(lo, a);
    hi = std::max(hi, a);
    ++count;
  }
  int store(uint64_t a, uint8_t v, bool force) {
    rows.insert(hex_rowOf(a));
    Byte &b = m[a];
    if (b.attr & HEX_PRESERVED)
      return err("EPRESERVED", a), 0;
    if (b.attr & HEX_PRESENT) {
      if (!force) {
        if (b.data != v)
          return err("ECLASH", a), 0;
        return 1;
      }
      if (b.attr & HEX_FORCED)
        err("ECLOBBERED", a, b.note, true);
      b.data = v;
      b.attr |= HEX_PRESENT | HEX_FORCED;
      return 1;
    }
    b.data = v;
    b.attr |= HEX_PRESENT | (force ? HEX_FORCED : 0);
    grow(a);
    return 1;
  }
  void setNote(uint64_t s, uint64_t e, const void *n) {
    for (uint64_t a = s; a <= e; ++a) {
      noteRows.insert(hex_rowOf(a));
      m[a].note = n;
    }
  }
  void preserve(uint64_t s, uint64_t e, bool on) {
    for (auto it = m.lower_bound(s); it != m.end() && it->first <= e; ++it)
      if (it->second.attr & HEX_PRESENT)
        it->second.attr = uint8_t(on ? it->second.attr | HEX_PRESERVED : it->second.attr & ~HEX_PRESERVED);
  }
  int del(uint64_t s, uint64_t n) {
    uint64_t e = s + n - 1, deleted = 0;
    for (auto it = m.lower_bound(s); it != m.end() && it->first <= e; ++it) {
      Byte &b = it->second;
      if (!(b.attr & HEX_PRESENT))
        continue;
      if (b.attr & HEX_PRESERVED)
        return err("EPRESERVED", it->first), 0;
      if (b.attr & HEX_FORCED)
        err("ECLOBBERED", it->first, b.note, true);
      b.attr &= uint8_t(~HEX_PRESENT);
      b.data = 0;
      --count;
      ++deleted;
    }
    if (!deleted)
      return 1;
    if (!count) {
      lo = hi = 0;
      return 1;
    }
    if (lo >= s && lo <= e)
      for (auto it = m.upper_bound(e);; ++it)
        if (it->second.attr & HEX_PRESENT) {
          lo = it->first;
          break;
        }
    if (hi >= s && hi <= e)
      for (auto it = std::make_reverse_iterator(m.lower_bound(s));; ++it)
        if (it->second.attr & HEX_PRESENT) {
          hi = it->first;
          break;
        }
    return 1;
  }
  int merge(const Model &s, bool force) {
    if (!s.count)
      return 1;
    if (!count || s.lo < lo)
      lo = s.lo;
    hi = std::max(hi, s.hi);
    const uint8_t X = force ? HEX_FORCED : 0;
    int ok = 1;
    for (uint32_t row : s.rows) {
      if (row < hex_rowOf(s.lo) || row > hex_rowOf(s.hi))
        continue;
      const bool sNotes = s.noteRows.count(row);
      const bool hadRow = rows.count(row);
      noteRows.insert(row);
      rows.insert(row);
      for (unsigned c = 0; c < 256; ++c) {
        uint64_t a = (uint64_t(row) << 8) + c;
        auto si = s.m.find(a);
        Model::Byte sb = si == s.m.end() ? Model::Byte() : si->second;
        if (!hadRow) {
          Byte &d = m[a];
          d.data = sb.data;
          d.attr = sb.attr;
          if (sNotes)
            d.note = sb.note;
          count += sb.attr & HEX_PRESENT;
          continue;
        }
        if (!(sb.attr & HEX_PRESENT))
          continue;
        Byte &d = m[a];
        if (d.data == sb.data && d.attr == sb.attr) {
          d.attr |= X;
          if (force && sNotes)
            d.note = sb.note;
          continue;
        }
        if (d.attr & HEX_PRESERVED) {
          err("EPRESERVED", a);
          ok = 0;
          continue;
        }
        if (d.attr & HEX_PRESENT) {
          if (!force) {
            if (d.data != sb.data) {
              err("ECLASH", a);
              ok = 0;
            }
            continue;
          }
          if (d.attr & HEX_FORCED)
            err("ECLOBBERED", a, d.note, true);
        } else {
          ++count;
        }
        d.data = sb.data;
        d.attr = uint8_t(sb.attr | X);
        if (sNotes)
          d.note = sb.note;
      }
    }
    return ok;
  }
};

// Address clusters: near 0, across a leaf edge, near the top of 32 bits.
constexpr uint64_t kBases[] = {0x0, 0x3F80, 0xFFFFF800};
constexpr uint64_t kSpan = 0x900;

std::string dumpModel(const Model &md, uint64_t lo, uint64_t hi) {
  std::string out;
  for (auto it = md.m.lower_bound(lo); it != md.m.end() && it->first <= hi; ++it)
    dumpByte(out, it->first, it->second.data, it->second.attr, it->second.note);
  dumpBounds(out, md.count, md.lo, md.hi);
  return out;
}

void expectSame(const hexdata *h, const Model &md) {
  for (uint64_t base : kBases) {
    for (uint64_t row = base; row <= base + kSpan; row += 256) {
      const hex_row *r = hex_getRow(h, hex_rowOf(row));
      ASSERT_EQ(r != nullptr, md.rows.count(hex_rowOf(row)) > 0) << std::hex << row;
      auto it = md.m.lower_bound(row & ~uint64_t(0xFF));
      for (uint64_t a = row & ~uint64_t(0xFF); a <= (row | 0xFF); ++a) {
        Model::Byte want;
        if (it != md.m.end() && it->first == a)
          want = (it++)->second;
        if ((r ? r->attr[a & 0xFF] : 0) != want.attr || (r ? r->data[a & 0xFF] : 0) != want.data ||
            hex_getNote(h, a) != want.note) {
          // Show the whole row of both sides.
          uint64_t lo = a & ~uint64_t(0xFF), hi = a | 0xFF;
          ASSERT_EQ(dump(h, lo, hi), dumpModel(md, lo, hi)) << std::hex << a;
        }
      }
    }
  }
  ASSERT_EQ(hex_getByteCount(h), md.count);
  if (md.count) {
    ASSERT_EQ(hex_getLoAddr(h), md.lo);
    ASSERT_EQ(hex_getHiAddr(h), md.hi);
  }
}

TEST_F(ImageTest, RandomOperationsMatchNaiveModel) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    auto pick = [&](uint64_t n) { return uint64_t(rng() % n); };
    auto addr = [&] { return kBases[pick(3)] + pick(kSpan - 0x100); };
    const void *owners[] = {nullptr, &ownerA, &ownerB, &ownerC};
    Image h = make();
    Model md;
    for (int step = 0; step < 200; ++step) {
      hex_clearErrors();
      md.errs.clear();
      uint64_t a = addr(), n = 1 + pick(pick(4) ? 16 : 255);
      std::vector<uint8_t> bytes(n);
      for (auto &b : bytes)
        b = uint8_t(pick(3)); // few values so equal bytes are common
      uint64_t got = 0, want = 0;
      switch (pick(9)) {
      case 0:
      case 1: {
        bool force = pick(3) == 0;
        got = hex_putBytes(h.get(), a, bytes.data(), n, force);
        for (uint64_t i = 0; i < n; ++i)
          want += uint64_t(md.store(a + i, bytes[i], force));
        break;
      }
      case 2: {
        const void *o = owners[pick(4)];
        got = uint64_t(hex_setNote(h.get(), a, a + n - 1, o));
        md.setNote(a, a + n - 1, o);
        want = 1;
        break;
      }
      case 3: {
        bool on = pick(4) != 0;
        uint64_t e = a + pick(8);
        got = uint64_t(hex_preserveData(h.get(), a, e, on));
        md.preserve(a, e, on);
        want = 1;
        break;
      }
      case 4:
        got = uint64_t(hex_deleteBytes(h.get(), a, n));
        want = uint64_t(md.del(a, n));
        break;
      case 5: {
        // Move the whole image into a fresh one: row counts must add up.
        Image fresh = make();
        Model mf;
        got = uint64_t(hex_mergeFrom(fresh.get(), h.get(), int(pick(2))));
        want = uint64_t(mf.merge(md, false));
        h = std::move(fresh);
        md = mf;
        break;
      }
      default: {
        // A small source image, merged by copy or by move.
        Image s = make();
        Model ms;
        for (int k = 0, runs = 1 + int(pick(3)); k < runs; ++k) {
          uint64_t sa = addr(), sn = 1 + pick(200);
          std::vector<uint8_t> sb(sn);
          for (auto &b : sb)
            b = uint8_t(pick(3));
          bool f = pick(2);
          hex_putBytes(s.get(), sa, sb.data(), sn, f);
          for (uint64_t i = 0; i < sn; ++i)
            ms.store(sa + i, sb[i], f);
          if (pick(2)) {
            const void *o = owners[1 + pick(3)];
            hex_setNote(s.get(), sa, sa + sn - 1, o);
            ms.setNote(sa, sa + sn - 1, o);
          }
          if (pick(4) == 0) {
            hex_preserveData(s.get(), sa, sa + sn / 2, 1);
            ms.preserve(sa, sa + sn / 2, true);
          }
        }
        hex_clearErrors();
        bool force = pick(2);
        got = uint64_t(pick(2) ? hex_mergeFrom(h.get(), s.get(), force) : copyRows(h.get(), s.get(), force));
        want = uint64_t(md.merge(ms, force));
        break;
      }
      }
      ASSERT_EQ(errors(), md.errs) << "step " << step;
      ASSERT_EQ(got, want) << "step " << step;
      ASSERT_NO_FATAL_FAILURE(expectSame(h.get(), md)) << "step " << step;
      uint64_t probe = addr(), found = 0;
      auto it = md.m.lower_bound(probe);
      while (it != md.m.end() && !(it->second.attr & HEX_PRESENT))
        ++it;
      ASSERT_EQ(hex_nextPresent(h.get(), probe, &found), it != md.m.end());
      if (it != md.m.end()) {
        ASSERT_EQ(found, it->first);
      }
      auto noteOf = [&](uint64_t x) {
        auto n = md.m.find(x);
        return n == md.m.end() ? nullptr : n->second.note;
      };
      uint64_t end = probe + pick(0x300), nr = probe;
      while (nr < end && noteOf(nr + 1) == noteOf(probe))
        ++nr;
      ASSERT_EQ(hex_findNoteRange(h.get(), probe, end), nr) << "step " << step;
    }
  }
}

} // namespace
