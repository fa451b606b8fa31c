// Memory image. Rows live in blocks found through a two-level directory:
// a top vector of leaf pointers (grown only to the highest leaf touched)
// and leaves of 64 block pointers, so a row is two index operations away
// and untouched stretches of the address space cost nothing below a leaf.
//
// A block holds a row's data and attribute bytes, its present-byte count
// and its notes. Notes are kept in one of three forms: none (the row never
// had a note set: every note reads null), a span (one note on columns
// nlo..nhi, null elsewhere; a whole row with one owner is the span 0..255)
// or a 256-entry array once the row's owners are mixed. Whether a row has
// notes at all matters to merging, which copies notes only from rows that
// have them.
#include "ihex/hexdata.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/alert.h"
#include "common/check.h"
#include "ihex/hex_errno.h"

namespace {

constexpr uint8_t BLK_DATA = 0x01;  // the data row exists (hex_getRow sees it)
constexpr uint8_t BLK_NOTES = 0x02; // the row has notes (a span or an array)

constexpr unsigned kLeafRows = 64;
constexpr unsigned kLeafShift = 6;
constexpr uint64_t kRowMask = 0xFF;                    // addresses of one row
constexpr uint64_t kLeafMask = (uint64_t(1) << 14) - 1; // addresses of one leaf
constexpr uint64_t kDirMask = (uint64_t(1) << 40) - 1;  // the whole 32-bit row space

struct hex_block {
  hex_row r;
  const void *note;   // the span's note, null when notes is set or none
  const void **notes; // 256 notes once a row's owners are mixed
  uint16_t present;   // HEX_PRESENT bits set in r.attr
  uint8_t nlo, nhi;   // the span's columns
  uint8_t flags;
};

struct hex_leaf {
  hex_block *slot[kLeafRows];
};

} // namespace

struct hexdata {
  std::vector<hex_leaf *> top;
  uint64_t hex_byteCount = 0;
  uint64_t hex_loAddr = 0;
  uint64_t hex_hiAddr = 0;
};

// ---- pools ----------------------------------------------------------------
// Blocks and note arrays are recycled across all images of the process, so
// the temporary images of input files do not go back to the heap row by
// row. A pool keeps at most kPoolKeep returned blocks; more are freed.

namespace {

constexpr size_t kPoolKeep = 1024;

struct pools {
  std::vector<hex_block *> blocks;
  std::vector<const void **> notes;
  long failAfter = -1; // tests: allocations left before they fail
};

// Never destroyed: the pools outlive every image, whatever the exit order.
pools &pool() {
  static pools *p = new pools;
  return *p;
}

bool injectFailure() {
  pools &p = pool();
  if (p.failAfter < 0)
    return false;
  if (p.failAfter == 0)
    return true;
  --p.failAfter;
  return false;
}

// A zeroed block, or null when the heap is exhausted.
hex_block *takeBlock() {
  if (injectFailure())
    return nullptr;
  pools &p = pool();
  if (!p.blocks.empty()) {
    hex_block *b = p.blocks.back();
    p.blocks.pop_back();
    std::memset(static_cast<void *>(b), 0, sizeof *b);
    return b;
  }
  return static_cast<hex_block *>(std::calloc(1, sizeof(hex_block)));
}

// An uninitialised 256-entry note array, or null.
const void **takeNotes() {
  if (injectFailure())
    return nullptr;
  pools &p = pool();
  if (!p.notes.empty()) {
    const void **n = p.notes.back();
    p.notes.pop_back();
    return n;
  }
  return static_cast<const void **>(std::malloc(256 * sizeof(void *)));
}

void giveNotes(const void **n) {
  pools &p = pool();
  if (p.notes.size() < kPoolKeep)
    p.notes.push_back(n);
  else
    std::free(n);
}

void giveBlock(hex_block *b) {
  if (b->notes)
    giveNotes(b->notes);
  pools &p = pool();
  if (p.blocks.size() < kPoolKeep)
    p.blocks.push_back(b);
  else
    std::free(b);
}

// ---- directory ------------------------------------------------------------

inline hex_block *findBlock(const hexdata *h, uint32_t row) {
  size_t t = row >> kLeafShift;
  if (t >= h->top.size())
    return nullptr;
  const hex_leaf *l = h->top[t];
  return l ? l->slot[row & (kLeafRows - 1)] : nullptr;
}

// The slot of a row, creating its leaf (and growing the top vector) on the
// way; the directory is bookkeeping, so running out of memory here is fatal.
hex_block **slotOf(hexdata *h, uint32_t row) {
  size_t t = row >> kLeafShift;
  if (t >= h->top.size()) {
    try {
      h->top.resize(t + 1, nullptr);
    } catch (const std::bad_alloc &) {
      alert_outOfMemory();
    }
  }
  hex_leaf *&l = h->top[t];
  if (!l) {
    l = static_cast<hex_leaf *>(std::calloc(1, sizeof(hex_leaf)));
    if (!l)
      alert_outOfMemory();
  }
  return &l->slot[row & (kLeafRows - 1)];
}

// The block of a row, created without a data row when missing; null when
// no block could be obtained.
hex_block *blockOf(hexdata *h, uint32_t row) {
  hex_block **s = slotOf(h, row);
  if (!*s)
    *s = takeBlock();
  return *s;
}

// The block of a row whose data row is about to be written.
inline hex_block *dataBlock(hexdata *h, uint32_t row) {
  hex_block *b = findBlock(h, row);
  if (!b && !(b = blockOf(h, row)))
    return nullptr;
  b->flags |= BLK_DATA;
  return b;
}

// Visits the blocks overlapping start..end in ascending order, skipping
// missing leaves and rows without touching them. fn(block, rowBase, c0, c1)
// returns false to stop the walk.
template <class Fn>
void walkUp(const hexdata *h, uint64_t start, uint64_t end, Fn fn) {
  uint64_t a = start;
  for (;;) {
    uint32_t row = hex_rowOf(a);
    size_t t = row >> kLeafShift;
    uint64_t last;
    if (t >= h->top.size()) {
      last = a | kDirMask;
    } else if (!h->top[t]) {
      // Hop over the run of missing leaves in one step.
      size_t t2 = t + 1;
      while (t2 < h->top.size() && !h->top[t2])
        ++t2;
      last = t2 == h->top.size() ? a | kDirMask : (a & ~kLeafMask) + (uint64_t(t2 - t) << 14) - 1;
    } else {
      const hex_leaf *l = h->top[t];
      unsigned s = row & (kLeafRows - 1);
      if (hex_block *b = l->slot[s]) {
        last = a | kRowMask;
        unsigned c1 = last <= end ? 255 : unsigned(end & kRowMask);
        if (!fn(b, a & ~kRowMask, unsigned(a & kRowMask), c1))
          return;
      } else {
        unsigned s2 = s + 1;
        while (s2 < kLeafRows && !l->slot[s2])
          ++s2;
        last = (a & ~kRowMask) + (uint64_t(s2 - s) << 8) - 1;
      }
    }
    if (last >= end)
      return;
    a = last + 1;
  }
}

// The same walk in descending order, from end down to start.
template <class Fn>
void walkDown(const hexdata *h, uint64_t start, uint64_t end, Fn fn) {
  uint64_t a = end;
  for (;;) {
    uint32_t row = hex_rowOf(a);
    size_t t = row >> kLeafShift;
    uint64_t first;
    if (t >= h->top.size()) {
      first = (a & ~kDirMask) | (uint64_t(h->top.size()) << 14);
    } else if (!h->top[t]) {
      first = a & ~kLeafMask;
    } else {
      first = a & ~kRowMask;
      if (hex_block *b = h->top[t]->slot[row & (kLeafRows - 1)]) {
        unsigned c0 = first >= start ? 0 : unsigned(start & kRowMask);
        if (!fn(b, first, c0, unsigned(a & kRowMask)))
          return;
      }
    }
    if (first <= start)
      return;
    a = first - 1;
  }
}

// First / last column in c0..c1 whose attribute has HEX_PRESENT; -1 if none.
int firstPresent(const uint8_t *attr, unsigned c0, unsigned c1) {
  unsigned c = c0;
  while (c <= c1) {
    if ((c & 7) == 0 && c + 7 <= c1) {
      uint64_t w;
      std::memcpy(&w, attr + c, 8);
      w &= 0x0101010101010101ull;
      if (w)
        return int(c + unsigned(__builtin_ctzll(w)) / 8);
      c += 8;
      continue;
    }
    if (attr[c] & HEX_PRESENT)
      return int(c);
    ++c;
  }
  return -1;
}

int lastPresent(const uint8_t *attr, unsigned c0, unsigned c1) {
  int c = int(c1);
  while (c >= int(c0)) {
    if ((c & 7) == 7 && c - 7 >= int(c0)) {
      uint64_t w;
      std::memcpy(&w, attr + c - 7, 8);
      w &= 0x0101010101010101ull;
      if (w)
        return c - 7 + (63 - __builtin_clzll(w)) / 8;
      c -= 8;
      continue;
    }
    if (attr[c] & HEX_PRESENT)
      return c;
    --c;
  }
  return -1;
}

// True when no attribute of the n bytes has HEX_PRESERVED or HEX_FORCED.
bool noneMarked(const uint8_t *attr, unsigned n) {
  uint8_t any = 0;
  for (unsigned i = 0; i < n; ++i)
    any |= attr[i];
  return !(any & (HEX_PRESERVED | HEX_FORCED));
}

bool allZero(const uint8_t *p, size_t n) {
  return n == 0 || (p[0] == 0 && std::memcmp(p, p + 1, n - 1) == 0);
}

// Lowest / highest present address in start..end.
bool nextPresent(const hexdata *h, uint64_t start, uint64_t end, uint64_t *found) {
  if (h->hex_byteCount == 0)
    return false;
  start = std::max(start, h->hex_loAddr);
  end = std::min(end, h->hex_hiAddr);
  if (start > end)
    return false;
  bool ok = false;
  walkUp(h, start, end, [&](const hex_block *b, uint64_t base, unsigned c0, unsigned c1) {
    if (b->present == 0)
      return true;
    int c = firstPresent(b->r.attr, c0, c1);
    if (c < 0)
      return true;
    *found = base + unsigned(c);
    ok = true;
    return false;
  });
  return ok;
}

bool prevPresent(const hexdata *h, uint64_t start, uint64_t end, uint64_t *found) {
  bool ok = false;
  walkDown(h, start, end, [&](const hex_block *b, uint64_t base, unsigned c0, unsigned c1) {
    if (b->present == 0)
      return true;
    int c = lastPresent(b->r.attr, c0, c1);
    if (c < 0)
      return true;
    *found = base + unsigned(c);
    ok = true;
    return false;
  });
  return ok;
}

// ---- notes ----------------------------------------------------------------

inline const void *noteAt(const hex_block *b, unsigned c) {
  if (b->notes)
    return b->notes[c];
  return c >= b->nlo && c <= b->nhi ? b->note : nullptr;
}

// Sets the note of columns c0..c1; false when a note array was needed and
// none could be obtained (the notes are then unchanged).
bool setNotes(hex_block *b, unsigned c0, unsigned c1, const void *n) {
  b->flags |= BLK_NOTES;
  if (b->notes) {
    if (c0 == 0 && c1 == 255) {
      giveNotes(b->notes);
      b->notes = nullptr;
      b->note = n;
      b->nlo = 0;
      b->nhi = 255;
    } else {
      std::fill(b->notes + c0, b->notes + c1 + 1, n);
    }
    return true;
  }
  const void *cur = b->note;
  unsigned lo = b->nlo, hi = b->nhi;
  bool covers = c0 <= lo && c1 >= hi;
  if (!cur || covers) {
    if (!cur && !n)
      return true;
    b->note = n;
    b->nlo = uint8_t(n ? c0 : 0);
    b->nhi = uint8_t(n ? c1 : 255);
    return true;
  }
  if (c1 < lo || c0 > hi) { // disjoint from the span
    if (!n)
      return true;
    if (n == cur && (c1 + 1 == lo || c0 == hi + 1)) {
      b->nlo = uint8_t(std::min(lo, c0));
      b->nhi = uint8_t(std::max(hi, c1));
      return true;
    }
  } else if (n == cur) { // overlapping the span with its own note
    b->nlo = uint8_t(std::min(lo, c0));
    b->nhi = uint8_t(std::max(hi, c1));
    return true;
  } else if (!n && c0 <= lo) { // clearing the span's low end
    b->nlo = uint8_t(c1 + 1);
    return true;
  } else if (!n && c1 >= hi) { // clearing its high end
    b->nhi = uint8_t(c0 - 1);
    return true;
  }
  const void **arr = takeNotes();
  if (!arr)
    return false;
  for (unsigned c = 0; c < 256; ++c)
    arr[c] = noteAt(b, c);
  std::fill(arr + c0, arr + c1 + 1, n);
  b->notes = arr;
  b->note = nullptr;
  return true;
}

// Gives d the notes of s for the whole row (s has notes).
bool copyNotes(hex_block *d, const hex_block *s) {
  d->flags |= BLK_NOTES;
  if (s->notes) {
    if (!d->notes && !(d->notes = takeNotes()))
      return false;
    std::memcpy(d->notes, s->notes, 256 * sizeof(void *));
    d->note = nullptr;
  } else {
    if (d->notes) {
      giveNotes(d->notes);
      d->notes = nullptr;
    }
    d->note = s->note;
    d->nlo = s->nlo;
    d->nhi = s->nhi;
  }
  return true;
}

// Gives d the note s has at column c, or s's notes for the whole row. A
// merge that cannot get a note array would lose owners: out of memory.
void mergeNote(hex_block *d, const hex_block *s, unsigned c) {
  if (!setNotes(d, c, c, noteAt(s, c)))
    alert_outOfMemory();
}

void mergeNotes(hex_block *d, const hex_block *s) {
  if (!copyNotes(d, s))
    alert_outOfMemory();
}

// ---- argument checks ------------------------------------------------------

// True, with ENULL recorded, when there is no image.
inline bool noImage(const hexdata *h) {
  if (h)
    return false;
  hex_setError(ENULL);
  return true;
}

// True, with EARG recorded, when a range's start lies past its end.
inline bool reversed(uint64_t start, uint64_t end) {
  if (start <= end)
    return false;
  hex_setError(EARG);
  return true;
}

// The last address of the run start..start+count-1 (count > 0); a run past
// the top of the address space stops there.
inline uint64_t runLast(uint64_t start, uint64_t count) {
  const uint64_t end = start + (count - 1);
  return end < start ? UINT64_MAX : end;
}

// ---- bounds and stores ----------------------------------------------------

// Widens the bounds for n newly present bytes spanning first..last.
inline void addBytes(hexdata *h, uint64_t first, uint64_t last, uint64_t n) {
  if (h->hex_byteCount == 0) {
    h->hex_loAddr = first;
    h->hex_hiAddr = last;
  } else {
    h->hex_loAddr = std::min(h->hex_loAddr, first);
    h->hex_hiAddr = std::max(h->hex_hiAddr, last);
  }
  h->hex_byteCount += n;
}

// One byte into an existing data row by the plain or forced rule.
int storeAt(hexdata *h, hex_block *b, uint64_t addr, uint8_t v, bool force) {
  unsigned c = unsigned(addr & kRowMask);
  uint8_t &at = b->r.attr[c];
  if (at & HEX_PRESERVED) {
    hex_setAddrError(EPRESERVED, addr);
    return 0;
  }
  if (at & HEX_PRESENT) {
    if (!force) {
      if (b->r.data[c] != v) {
        hex_setAddrError(ECLASH, addr);
        return 0;
      }
      return 1;
    }
    if (at & HEX_FORCED)
      hex_setClobbered(addr, noteAt(b, c));
    b->r.data[c] = v;
    at |= HEX_PRESENT | HEX_FORCED;
    return 1;
  }
  b->r.data[c] = v;
  at |= force ? HEX_PRESENT | HEX_FORCED : HEX_PRESENT;
  ++b->present;
  addBytes(h, addr, addr, 1);
  return 1;
}

int storeOne(hexdata *h, uint64_t addr, uint8_t v, bool force) {
  if (noImage(h))
    return 0;
  hex_block *b = dataBlock(h, hex_rowOf(addr));
  if (!b) {
    hex_setError(EMEMORY);
    return 0;
  }
  return storeAt(h, b, addr, v, force);
}

uint64_t storeRun(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count, bool force) {
  if (!h || !bytes) {
    hex_setError(ENULL);
    return 0;
  }
  if (count == 0)
    return 0;
  const uint64_t end = runLast(start, count);
  const uint8_t mark = force ? HEX_PRESENT | HEX_FORCED : HEX_PRESENT;
  uint64_t stored = 0;
  for (uint64_t a = start;;) {
    uint64_t last = std::min(a | kRowMask, end);
    unsigned c0 = unsigned(a & kRowMask), n = unsigned(last - a) + 1;
    hex_block *b = dataBlock(h, hex_rowOf(a));
    if (!b) {
      for (unsigned i = 0; i < n; ++i)
        hex_setError(EMEMORY);
    } else if (allZero(b->r.attr + c0, n)) {
      // Nothing there yet: the whole stretch goes in at once.
      std::memcpy(b->r.data + c0, bytes, n);
      std::memset(b->r.attr + c0, mark, n);
      b->present = uint16_t(b->present + n);
      addBytes(h, a, last, n);
      stored += n;
    } else if (force && noneMarked(b->r.attr + c0, n)) {
      // Forced over plain bytes and gaps only: nothing to refuse or report.
      unsigned added = 0;
      for (unsigned i = 0; i < n; ++i) {
        added += unsigned(~b->r.attr[c0 + i] & HEX_PRESENT);
        b->r.attr[c0 + i] |= HEX_PRESENT | HEX_FORCED;
      }
      std::memcpy(b->r.data + c0, bytes, n);
      b->present = uint16_t(b->present + added);
      // Present bytes of the stretch already lie within the bounds.
      if (added)
        addBytes(h, a, last, added);
      stored += n;
    } else {
      for (unsigned i = 0; i < n; ++i)
        stored += unsigned(storeAt(h, b, a + i, bytes[i], force));
    }
    if (last == end)
      return stored;
    bytes += n;
    a = last + 1;
  }
}

// ---- merge ----------------------------------------------------------------

// Merges one row of src into an existing data row of dst by the merge rules.
// Returns the number of bytes new to dst; clears *ok when a byte is refused.
unsigned mergeRow(hex_block *d, const hex_block *s, uint64_t base, bool force, int *ok) {
  const uint8_t X = force ? HEX_FORCED : 0;
  const bool sNotes = s->flags & BLK_NOTES;
  // The notes of identical bytes follow src only under force.
  const bool takeSame = force && sNotes;
  if (std::memcmp(d->r.data, s->r.data, 256) == 0 && std::memcmp(d->r.attr, s->r.attr, 256) == 0) {
    if (X)
      for (unsigned c = 0; c < 256; ++c)
        d->r.attr[c] = uint8_t(d->r.attr[c] | ((d->r.attr[c] & HEX_PRESENT) * X));
    if (takeSame) {
      if (s->present == 256) {
        mergeNotes(d, s);
      } else {
        for (unsigned c = 0; c < 256; ++c)
          if (s->r.attr[c] & HEX_PRESENT)
            mergeNote(d, s, c);
      }
    }
    return 0;
  }
  unsigned added = 0;
  for (unsigned c = 0; c < 256; ++c) {
    const uint8_t b = s->r.attr[c];
    if (!(b & HEX_PRESENT))
      continue;
    uint8_t &a = d->r.attr[c];
    const uint8_t sv = s->r.data[c];
    if (d->r.data[c] == sv && a == b) {
      a |= X;
      if (takeSame)
        mergeNote(d, s, c);
      continue;
    }
    if (a & HEX_PRESERVED) {
      hex_setAddrError(EPRESERVED, base + c);
      *ok = 0;
      continue;
    }
    if (a & HEX_PRESENT) {
      if (!force) {
        if (d->r.data[c] != sv) {
          hex_setAddrError(ECLASH, base + c);
          *ok = 0;
        }
        continue;
      }
      if (a & HEX_FORCED)
        hex_setClobbered(base + c, noteAt(d, c));
    } else {
      ++added;
    }
    d->r.data[c] = sv;
    a = uint8_t(b | X);
    if (sNotes)
      mergeNote(d, s, c);
  }
  d->present = uint16_t(d->present + added);
  return added;
}

// The merge of copyRows and hex_mergeFrom; with move, rows that dst lacks
// are taken from src instead of copied.
int merge(hexdata *dst, hexdata *src, int force, bool move) {
  if (!dst || !src) {
    hex_setError(ENULL);
    return 0;
  }
  if (src->hex_byteCount == 0)
    return 1;
  if (dst->hex_byteCount == 0 || src->hex_loAddr < dst->hex_loAddr)
    dst->hex_loAddr = src->hex_loAddr;
  if (src->hex_hiAddr > dst->hex_hiAddr)
    dst->hex_hiAddr = src->hex_hiAddr;
  int ok = 1;
  uint64_t added = 0;
  bool failed = false;
  // Only rows within src's bounds take part, as row numbers.
  const uint64_t first = uint64_t(hex_rowOf(src->hex_loAddr)) << 8;
  const uint64_t last = (uint64_t(hex_rowOf(src->hex_hiAddr)) << 8) | kRowMask;
  if (first > last)
    return 1;
  walkUp(src, first, last, [&](hex_block *s, uint64_t base, unsigned, unsigned) {
    if (!(s->flags & BLK_DATA))
      return true;
    uint32_t row = hex_rowOf(base);
    hex_block *d = findBlock(dst, row);
    if (!d && move) {
      hex_block **ss = slotOf(src, row);
      *ss = nullptr;
      if (!(s->flags & BLK_NOTES)) { // dst gets an all-null note row
        s->flags |= BLK_NOTES;
        s->note = nullptr;
        s->nlo = 0;
        s->nhi = 255;
      }
      *slotOf(dst, row) = s;
      added += s->present;
      return true;
    }
    if (!d || !(d->flags & BLK_DATA)) {
      if (!d && !(d = blockOf(dst, row))) {
        hex_setError(EMEMORY);
        failed = true;
        return false;
      }
      d->flags |= BLK_DATA | BLK_NOTES;
      std::memcpy(&d->r, &s->r, sizeof d->r);
      d->present = s->present;
      added += s->present;
      if (s->flags & BLK_NOTES) {
        if (move && s->notes && !d->notes) {
          d->notes = s->notes;
          d->note = nullptr;
          s->notes = nullptr;
        } else {
          mergeNotes(d, s);
        }
      }
      return true;
    }
    d->flags |= BLK_NOTES;
    added += mergeRow(d, s, base, force, &ok);
    return true;
  });
  dst->hex_byteCount += added;
  if (move)
    hex_clear(src);
  return failed ? 0 : ok;
}

} // namespace

// ---- creation and bounds ----------------------------------------------------

hexdata *hex_create() {
  hexdata *h = injectFailure() ? nullptr : new (std::nothrow) hexdata;
  if (!h)
    hex_setError(EMEMORY);
  return h;
}

int hex_clear(hexdata *h) {
  if (noImage(h))
    return 0;
  for (hex_leaf *l : h->top) {
    if (!l)
      continue;
    for (hex_block *b : l->slot)
      if (b)
        giveBlock(b);
    std::free(l);
  }
  h->top.clear();
  h->hex_byteCount = 0;
  h->hex_loAddr = 0;
  h->hex_hiAddr = 0;
  return 1;
}

void hex_destroy(hexdata *h) {
  if (!h)
    return;
  hex_clear(h);
  delete h;
}

uint64_t hex_getByteCount(const hexdata *h) {
  if (noImage(h))
    return 0;
  return h->hex_byteCount;
}

// A bound of a non-empty image; 0 with ENODATA (or ENULL) otherwise.
static uint64_t bound(const hexdata *h, uint64_t hexdata::*which) {
  if (noImage(h))
    return 0;
  if (h->hex_byteCount == 0) {
    hex_setError(ENODATA);
    return 0;
  }
  return h->*which;
}

uint64_t hex_getLoAddr(const hexdata *h) { return bound(h, &hexdata::hex_loAddr); }
uint64_t hex_getHiAddr(const hexdata *h) { return bound(h, &hexdata::hex_hiAddr); }

// ---- queries ----------------------------------------------------------------

int hex_hasByte(const hexdata *h, uint64_t addr) {
  if (noImage(h))
    return 0;
  const hex_block *b = findBlock(h, hex_rowOf(addr));
  return b && (b->r.attr[addr & kRowMask] & HEX_PRESENT);
}

int hex_hasAnyByte(const hexdata *h, uint64_t start, uint64_t count) {
  if (noImage(h))
    return 0;
  if (count == 0)
    return 0;
  uint64_t found;
  return nextPresent(h, start, runLast(start, count), &found);
}

uint8_t hex_getByte(const hexdata *h, uint64_t addr) {
  if (noImage(h))
    return 0;
  const hex_block *b = findBlock(h, hex_rowOf(addr));
  if (!b || !(b->r.attr[addr & kRowMask] & HEX_PRESENT)) {
    hex_setError(ENODATA);
    return 0;
  }
  return b->r.data[addr & kRowMask];
}

std::vector<uint8_t> hex_getBytes(const hexdata *h, uint64_t start, uint64_t count) {
  if (noImage(h))
    return {};
  std::vector<uint8_t> out(count);
  for (uint64_t i = 0; i < count;) {
    uint64_t a = start + i;
    unsigned c0 = unsigned(a & kRowMask);
    unsigned n = unsigned(std::min<uint64_t>(256 - c0, count - i));
    const hex_block *b = findBlock(h, hex_rowOf(a));
    for (unsigned k = 0; k < n; ++k) {
      if (b && (b->r.attr[c0 + k] & HEX_PRESENT))
        out[i + k] = b->r.data[c0 + k];
      else
        hex_setError(ENODATA);
    }
    i += n;
  }
  return out;
}

int hex_isPreserved(const hexdata *h, uint64_t addr) {
  if (noImage(h))
    return 0;
  const hex_block *b = findBlock(h, hex_rowOf(addr));
  return b && (b->r.attr[addr & kRowMask] & HEX_PRESERVED);
}

int hex_anyPreserved(const hexdata *h, uint64_t start, uint64_t count) {
  if (noImage(h))
    return 0;
  if (count == 0) {
    hex_setError(EARG);
    return 0;
  }
  int any = 0;
  walkUp(h, start, runLast(start, count),
         [&](const hex_block *b, uint64_t, unsigned c0, unsigned c1) {
           for (unsigned c = c0; c <= c1; ++c)
             if (b->r.attr[c] & HEX_PRESERVED) {
               any = 1;
               return false;
             }
           return true;
         });
  return any;
}

uint32_t hex_findByte(const hexdata *h, uint64_t start, uint64_t end) {
  if (noImage(h))
    return 0;
  if (reversed(start, end))
    return 0;
  uint64_t found = 0;
  nextPresent(h, start, end, &found);
  return uint32_t(found); // reduced to 32 bits: address 0 and none look alike
}

bool hex_nextPresent(const hexdata *h, uint64_t start, uint64_t *found) {
  if (!h || !found) {
    hex_setError(ENULL);
    return false;
  }
  return nextPresent(h, start, UINT64_MAX, found);
}

const void *hex_getNote(const hexdata *h, uint64_t addr) {
  if (noImage(h))
    return nullptr;
  const hex_block *b = findBlock(h, hex_rowOf(addr));
  return b ? noteAt(b, unsigned(addr & kRowMask)) : nullptr;
}

uint64_t hex_findNoteRange(const hexdata *h, uint64_t start, uint64_t end) {
  if (noImage(h))
    return 0;
  if (reversed(start, end))
    return 0;
  const void *n = hex_getNote(h, start);
  uint64_t result = end;
  // Walk every row of the range (missing ones too: they read as null notes).
  for (uint64_t a = start;;) {
    uint64_t last = std::min(a | kRowMask, end);
    unsigned c0 = unsigned(a & kRowMask), c1 = unsigned(last & kRowMask);
    const hex_block *b = findBlock(h, hex_rowOf(a));
    int diff = -1; // first column of c0..c1 whose note is not n
    if (!b || !(b->flags & BLK_NOTES)) {
      if (n) {
        diff = int(c0);
      } else if (!b) { // a missing leaf or directory stretch reads null too
        size_t t = hex_rowOf(a) >> kLeafShift;
        if (t >= h->top.size())
          last = std::min(a | kDirMask, end);
        else if (!h->top[t])
          last = std::min(a | kLeafMask, end);
      }
    } else if (b->notes) {
      for (unsigned c = c0; c <= c1; ++c)
        if (b->notes[c] != n) {
          diff = int(c);
          break;
        }
    } else if (n && n == b->note) { // inside the span only
      if (c0 < b->nlo || c0 > b->nhi)
        diff = int(c0);
      else if (c1 > b->nhi)
        diff = b->nhi + 1;
    } else if (!n) { // outside the span only
      if (b->note && std::max(c0, unsigned(b->nlo)) <= std::min(c1, unsigned(b->nhi)))
        diff = int(std::max(c0, unsigned(b->nlo)));
    } else {
      diff = int(c0);
    }
    if (diff >= 0) {
      result = (a & ~kRowMask) + unsigned(diff) - 1;
      break;
    }
    if (last == end)
      break;
    a = last + 1;
  }
  return result;
}

const hex_row *hex_getRow(const hexdata *h, uint32_t row) {
  if (noImage(h))
    return nullptr;
  const hex_block *b = findBlock(h, row);
  return b && (b->flags & BLK_DATA) ? &b->r : nullptr;
}

// ---- stores -----------------------------------------------------------------

int hex_storeByte(hexdata *h, uint64_t addr, uint8_t value) { return storeOne(h, addr, value, false); }
int hex_forceByte(hexdata *h, uint64_t addr, uint8_t value) { return storeOne(h, addr, value, true); }
int hex_putByte(hexdata *h, uint64_t addr, uint8_t value, int force) {
  return storeOne(h, addr, value, force != 0);
}

uint64_t hex_storeBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count) {
  return storeRun(h, start, bytes, count, false);
}
uint64_t hex_forceBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count) {
  return storeRun(h, start, bytes, count, true);
}
uint64_t hex_putBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count, int force) {
  return storeRun(h, start, bytes, count, force != 0);
}

int hex_preserveData(hexdata *h, uint64_t start, uint64_t end, int on) {
  if (noImage(h))
    return 0;
  if (reversed(start, end))
    return 0;
  walkUp(h, start, end, [&](hex_block *b, uint64_t, unsigned c0, unsigned c1) {
    if (b->present == 0)
      return true;
    uint8_t *at = b->r.attr;
    // Only present bytes change: the PRESENT bit, shifted, is the mask.
    if (on)
      for (unsigned c = c0; c <= c1; ++c)
        at[c] = uint8_t(at[c] | ((at[c] & HEX_PRESENT) << 1));
    else
      for (unsigned c = c0; c <= c1; ++c)
        at[c] = uint8_t(at[c] & ~((at[c] & HEX_PRESENT) << 1));
    return true;
  });
  return 1;
}

int hex_setNote(hexdata *h, uint64_t start, uint64_t end, const void *note) {
  if (noImage(h))
    return 0;
  if (reversed(start, end))
    return 0;
  for (uint64_t a = start;;) {
    uint64_t last = std::min(a | kRowMask, end);
    hex_block *b = blockOf(h, hex_rowOf(a));
    if (!b || !setNotes(b, unsigned(a & kRowMask), unsigned(last & kRowMask), note)) {
      hex_setError(EMEMORY);
      return 0;
    }
    if (last == end)
      return 1;
    a = last + 1;
  }
}

int hex_deleteBytes(hexdata *h, uint64_t start, uint64_t count) {
  if (noImage(h))
    return 0;
  if (count == 0) {
    hex_setError(EARG);
    return 0;
  }
  const uint64_t runEnd = runLast(start, count);
  uint64_t deleted = 0;
  bool refused = false;
  walkUp(h, start, runEnd, [&](hex_block *b, uint64_t base, unsigned c0, unsigned c1) {
    if (b->present == 0)
      return true;
    for (unsigned c = c0; c <= c1; ++c) {
      uint8_t &at = b->r.attr[c];
      if (!(at & HEX_PRESENT))
        continue;
      if (at & HEX_PRESERVED) {
        hex_setAddrError(EPRESERVED, base + c);
        refused = true;
        return false;
      }
      if (at & HEX_FORCED)
        hex_setClobbered(base + c, noteAt(b, c));
      at &= uint8_t(~HEX_PRESENT); // HEX_FORCED stays on the empty slot
      b->r.data[c] = 0;
      --b->present;
      --h->hex_byteCount;
      ++deleted;
    }
    return true;
  });
  // Deliberately simple: a preserved byte stops the deletion and the bounds
  // are left as they were.
  if (refused)
    return 0;
  if (deleted == 0)
    return 1;
  if (h->hex_byteCount == 0) {
    h->hex_loAddr = 0;
    h->hex_hiAddr = 0;
  } else {
    const uint64_t end = runEnd + 1; // just past the run
    if (h->hex_loAddr >= start && h->hex_loAddr <= runEnd) {
      ROMWELD_ASSERT((end-1) < h->hex_hiAddr);
      uint64_t lo = 0;
      bool found = nextPresent(h, end, h->hex_hiAddr, &lo);
      ROMWELD_ASSERT(found);
      h->hex_loAddr = lo;
    }
    if (h->hex_hiAddr >= start && h->hex_hiAddr <= runEnd) {
      uint64_t hi = 0;
      bool found = start > 0 && prevPresent(h, h->hex_loAddr, start - 1, &hi);
      ROMWELD_ASSERT(found);
      h->hex_hiAddr = hi;
    }
  }
  ROMWELD_ASSERT(h->hex_loAddr <= h->hex_hiAddr);
  ROMWELD_ASSERT(h->hex_byteCount <= (h->hex_hiAddr - h->hex_loAddr + 1));
  return 1;
}

int copyRows(hexdata *dst, const hexdata *src, int force) {
  // Without move, src is only read.
  return merge(dst, const_cast<hexdata *>(src), force, false);
}

int hex_mergeFrom(hexdata *dst, hexdata *src, int force) {
  return merge(dst, src, force, dst != src);
}

void hex_failAllocationsAfter(long n) { pool().failAfter = n; }
