#include "image/hexdata.h"

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "image/hex_errno.h"
#include "image/testutil.h"

namespace {

using namespace testutil;

struct ImageTest : ::testing::Test {
  void SetUp() override { hex_clearErrors(); }
  void TearDown() override { hex_clearErrors(); }
};

// ---- hand cases the model below cannot stand in for --------------------------

// A walk over the whole 64-bit space costs what the image holds, not what
// the range spans (every slot's content: the model test's clusters).
TEST_F(ImageTest, WholeAddressSpaceOnASparseImage) {
  Image h = newImage();
  hexdata *H = h.get();
  const uint64_t top = UINT64_MAX, far = uint64_t(1) << 40, half = uint64_t(1) << 63;
  for (uint64_t a : {uint64_t(0x10), far, half, top - 0xFF, top})
    hex_storeByte(H, a, uint8_t(a >> 56 | 1));
  hex_setNote(H, far, far + 0xFF, &ownerB);
  hex_setNote(H, top - 0xFF, top, &ownerA);
  hex_preserveData(H, top, top, 1);
  uint64_t next = 0;
  EXPECT_TRUE(hex_nextPresent(H, 0, &next) && next == 0x10);
  EXPECT_TRUE(hex_nextPresent(H, half + 1, &next) && next == top - 0xFF);
  EXPECT_EQ(hex_findNoteRange(H, 0, top), far - 1);
  EXPECT_EQ(hex_findNoteRange(H, far, far + 0x1000), far + 0xFF); // the next row has no notes at all
  EXPECT_EQ(hex_findNoteRange(H, far + 0x100, top), top - 0x100);
  EXPECT_EQ(hex_findNoteRange(H, top - 0xFF, top), top);
  EXPECT_EQ(hex_anyPreserved(H, 0, top), 0); // the run ends just below the top
  EXPECT_EQ(hex_anyPreserved(H, 1, top), 1);
  EXPECT_EQ(hex_hasAnyByte(H, far + 1, half - far - 1), 0);
  // Deleting the byte at 2^63 moves no bound; deleting the one at 0x10
  // moves the low bound across 2^40 addresses without a row.
  EXPECT_EQ(hex_deleteBytes(H, half, 1), 1);
  EXPECT_EQ(hex_deleteBytes(H, 0, 0x11), 1);
  EXPECT_EQ(bounds(H), "count 3 10000000000-FFFFFFFFFFFFFFFF");
  // A run past the top stops there. Intended: the preserved top byte stops
  // the deletion, the bytes before it stay deleted and the bounds are stale.
  EXPECT_EQ(hex_deleteBytes(H, 0x11, top), 0);
  EXPECT_EQ(errors(), "EPRESERVED@FFFFFFFFFFFFFFFF"); // the test's only record
  EXPECT_EQ(bounds(H), "count 1 10000000000-FFFFFFFFFFFFFFFF");
  EXPECT_EQ(present(H), "FFFFFFFFFFFFFFFF=FFR/A");
}

// Each operation's results add up to 0 when all are refused; a refusal
// changes nothing.
TEST_F(ImageTest, RefusalsAreRecordedAndChangeNothing) {
  Image h = newImage(), e = newImage();
  hexdata *H = h.get(), *E = e.get();
  hex_storeByte(H, 0x10, 0x11);
  hex_storeByte(H, 0x4FF, 0x22);
  hex_setNote(H, 0x10, 0x1F, &ownerA);
  const std::string before = dump(H, 0, 0x4FF);
  const std::pair<std::function<uint64_t()>, const char *> cases[] = { // call, records
      {[&] { return hex_getByte(H, 0x12); }, "ENODATA"},
      {[&] { return hex_getLoAddr(E) + hex_getHiAddr(E); }, "ENODATA ENODATA"},
      {[&] { return hex_findNoteRange(H, 2, 1) + hex_preserveData(H, 5, 4, 1); }, "EARG EARG"},
      {[&] { return hex_anyPreserved(H, 0, 0) + hex_deleteBytes(H, 0x10, 0); }, "EARG EARG"},
      {[&] { return copyRows(nullptr, E, 0) + hex_deleteBytes(nullptr, 0x10, 1); }, "ENULL ENULL"},
      {[&] { return hex_storeBytes(H, 0, nullptr, 1) + (hex_getRow(nullptr, 0) != nullptr); }, "ENULL ENULL"},
      {[&] { return (copyRows(H, E, 1) != 1) + (hex_mergeFrom(H, H, 0) != 1); }, ""}, // nothing new
  };
  for (const auto &[op, errs] : cases) {
    hex_clearErrors();
    EXPECT_EQ(op(), 0u) << errs;
    EXPECT_EQ(errors(), errs);
    EXPECT_EQ(dump(H, 0, 0x4FF), before) << errs;
  }
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
    static const char many[300] = {}; // owners enough to outgrow every note table
    Pair p;
    // Half of the operations go where the previous one went: a store onto
    // what was just deleted, preserved or stored by the other rule.
    for (uint64_t step = 0, a = 0; step < 200; ++step) {
      hex_clearErrors();
      p.md.errs.clear();
      uint64_t n = 1 + pick(pick(4) ? 16 : 255), got = 0, want = 1;
      a = step && pick(2) ? a : addr();
      switch (pick(10)) {
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
      case 6: // bytes of a stretch given owners of their own, some shared, in any order
        got = 1;
        for (uint64_t k = 0, at = a; k < n; ++k, at = a + pick(n))
          got &= p.note(at, std::min(at + pick(3), a + n - 1), &many[pick(pick(2) ? 20 : std::size(many))]);
        break;
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
