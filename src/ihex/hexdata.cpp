// Memory image. A row lives in a block found through a sparse directory
// keyed by the row number (the address shifted right by 8, 56 bits):
//
//   region  rows >> 24: the 4 GiB of address space a region covers; the
//           region holding addresses below 4 GiB is reached directly, the
//           others through an ordered map (with the last one used cached)
//   mid     (rows >> 14) & 1023 in a region: 4 MiB of addresses
//   slot    (rows >> 6) & 255 in a mid: 16 KiB of addresses, either a leaf
//           of 64 block pointers or, while only one of its rows is used,
//           that row's block itself (tagged by the low pointer bit)
//
// So a lookup is a few index operations, a lone row costs its block and no
// leaf, and only nodes that hold rows are ever allocated or visited: a byte
// at 0xFFFFFFFFFFFFFF00 costs one region, one mid and its block.
//
// A block holds a row's data and attribute planes, its row number, its
// present-byte count and its notes. Notes are kept in one of three forms:
// none (the row never had a note set: every note reads null), a span (one
// note on columns nlo..nhi, null elsewhere; a whole row with one owner is
// the span 0..255) or a 256-entry array once the row's owners are mixed.
// Whether a row has notes at all matters to merging, which copies notes
// only from rows that have them.
#include "ihex/hexdata.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <new>

#include "common/alert.h"
#include "common/check.h"
#include "ihex/hex_errno.h"

namespace {

constexpr uint8_t BLK_DATA = 0x01;  // the data row exists (hex_getRow sees it)
constexpr uint8_t BLK_NOTES = 0x02; // the row has notes (a span or an array)

constexpr uint64_t kRowMask = 0xFF; // columns of one row

constexpr unsigned kMids = 1024;   // mids per region
constexpr unsigned kSlots = 256;   // slots per mid
constexpr unsigned kLeafRows = 64; // rows per slot

struct hex_block {
  hex_row r;
  uint64_t row;
  const void *note;   // the span's note, null when notes is set or none
  const void **notes; // 256 notes once a row's owners are mixed
  uint16_t present;   // bits set in r.present
  uint8_t nlo, nhi;   // the span's columns
  uint8_t flags;
};

struct hex_leaf {
  hex_block *row[kLeafRows];
};

// A slot: 0, a leaf pointer, or a lone block pointer with bit 0 set.
using slot_t = uintptr_t;
inline bool isLone(slot_t e) { return e & 1; }
inline hex_block *loneOf(slot_t e) { return reinterpret_cast<hex_block *>(e & ~slot_t(1)); }
inline hex_leaf *leafOf(slot_t e) { return reinterpret_cast<hex_leaf *>(e); }
inline slot_t lone(hex_block *b) { return reinterpret_cast<slot_t>(b) | 1; }
static_assert(alignof(hex_block) >= 2, "a block pointer leaves bit 0 free for the tag");

struct hex_mid {
  slot_t slot[kSlots];
};

struct hex_region {
  hex_mid *mid[kMids];
};

inline unsigned midIndex(uint64_t row) { return unsigned(row >> 14) & (kMids - 1); }
inline unsigned slotIndex(uint64_t row) { return unsigned(row >> 6) & (kSlots - 1); }
inline unsigned leafIndex(uint64_t row) { return unsigned(row) & (kLeafRows - 1); }

} // namespace

struct hexdata {
  hex_region *low = nullptr;                // rows below 2^24: addresses below 4 GiB
  std::map<uint64_t, hex_region *> regions; // every other region, by row >> 24
  uint64_t hex_byteCount = 0;
  uint64_t hex_loAddr = 0;
  uint64_t hex_hiAddr = 0;
  // The last block found, for the many lookups that stay in one row.
  mutable hex_block *lastBlock = nullptr;
  mutable const hex_region *lastRegion = nullptr;
  mutable uint64_t lastRegionKey = 0;
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

// A zeroed block for a row, or null when the heap is exhausted.
hex_block *takeBlock(uint64_t row) {
  if (injectFailure())
    return nullptr;
  pools &p = pool();
  hex_block *b;
  if (!p.blocks.empty()) {
    b = p.blocks.back();
    p.blocks.pop_back();
    std::memset(static_cast<void *>(b), 0, sizeof *b);
  } else if (!(b = static_cast<hex_block *>(std::calloc(1, sizeof(hex_block))))) {
    return nullptr;
  }
  b->row = row;
  return b;
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

// Directory nodes are bookkeeping: running out of memory for one is fatal.
template <class T> T *newNode() {
  T *n = static_cast<T *>(std::calloc(1, sizeof(T)));
  if (!n)
    alert_outOfMemory();
  return n;
}

// ---- directory ------------------------------------------------------------

const hex_region *findRegion(const hexdata *h, uint64_t key) {
  if (key == 0)
    return h->low;
  if (h->lastRegion && h->lastRegionKey == key)
    return h->lastRegion;
  auto it = h->regions.find(key);
  if (it == h->regions.end())
    return nullptr;
  h->lastRegionKey = key;
  h->lastRegion = it->second;
  return it->second;
}

hex_block *findBlock(const hexdata *h, uint64_t row) {
  if (h->lastBlock && h->lastBlock->row == row)
    return h->lastBlock;
  const hex_region *R = findRegion(h, row >> 24);
  if (!R)
    return nullptr;
  const hex_mid *M = R->mid[midIndex(row)];
  if (!M)
    return nullptr;
  const slot_t e = M->slot[slotIndex(row)];
  hex_block *b = !e ? nullptr : isLone(e) ? loneOf(e) : leafOf(e)->row[leafIndex(row)];
  if (!b || b->row != row)
    return nullptr;
  h->lastBlock = b;
  return b;
}

hex_mid *midFor(hexdata *h, uint64_t row) {
  const uint64_t key = row >> 24;
  hex_region *R;
  if (key == 0) {
    if (!h->low)
      h->low = newNode<hex_region>();
    R = h->low;
  } else {
    hex_region *&r = h->regions[key];
    if (!r)
      r = newNode<hex_region>();
    R = r;
  }
  hex_mid *&M = R->mid[midIndex(row)];
  if (!M)
    M = newNode<hex_mid>();
  return M;
}

// Puts a block into the directory at its row, which holds none.
void attach(hexdata *h, hex_block *b) {
  slot_t &e = midFor(h, b->row)->slot[slotIndex(b->row)];
  if (!e) {
    e = lone(b);
    return;
  }
  if (isLone(e)) { // a second row in this slot: it gets a leaf
    hex_block *other = loneOf(e);
    hex_leaf *L = newNode<hex_leaf>();
    L->row[leafIndex(other->row)] = other;
    e = reinterpret_cast<slot_t>(L);
  }
  leafOf(e)->row[leafIndex(b->row)] = b;
}

// Takes a block out of the directory; its nodes stay.
void detach(hexdata *h, const hex_block *b) {
  slot_t &e = midFor(h, b->row)->slot[slotIndex(b->row)];
  if (isLone(e))
    e = 0;
  else
    leafOf(e)->row[leafIndex(b->row)] = nullptr;
  if (h->lastBlock == b)
    h->lastBlock = nullptr;
}

// The block of a row, created without a data row when missing; null when
// no block could be obtained.
hex_block *blockOf(hexdata *h, uint64_t row) {
  if (hex_block *b = findBlock(h, row))
    return b;
  hex_block *b = takeBlock(row);
  if (b)
    attach(h, b);
  return b;
}

// The block of a row whose data row is about to be written.
inline hex_block *dataBlock(hexdata *h, uint64_t row) {
  hex_block *b = blockOf(h, row);
  if (b)
    b->flags |= BLK_DATA;
  return b;
}

// Calls fn(i) for i from lo to hi, ascending or descending; false from fn
// stops the loop and is returned.
template <bool Up, class Fn> bool eachIndex(unsigned lo, unsigned hi, Fn fn) {
  for (unsigned k = 0; k <= hi - lo; ++k)
    if (!fn(Up ? lo + k : hi - k))
      return false;
  return true;
}

// Visits the blocks of rows r0..r1 of one region (base is its first row) in
// ascending or descending order, touching only the directory nodes that
// exist. fn(block) returns false to stop; so does the visit.
template <bool Up, class Fn>
bool visitRegion(const hex_region *R, uint64_t base, uint64_t r0, uint64_t r1, Fn &fn) {
  return eachIndex<Up>(midIndex(r0), midIndex(r1), [&](unsigned m) {
    const hex_mid *M = R->mid[m];
    if (!M)
      return true;
    const uint64_t mBase = base | uint64_t(m) << 14;
    const unsigned s0 = r0 > mBase ? slotIndex(r0) : 0;
    const unsigned s1 = r1 < (mBase | 0x3FFF) ? slotIndex(r1) : kSlots - 1;
    return eachIndex<Up>(s0, s1, [&](unsigned s) {
      const slot_t e = M->slot[s];
      if (!e)
        return true;
      if (isLone(e)) {
        hex_block *b = loneOf(e);
        return b->row < r0 || b->row > r1 || fn(b);
      }
      const uint64_t sBase = mBase | uint64_t(s) << 6;
      const unsigned k0 = r0 > sBase ? leafIndex(r0) : 0;
      const unsigned k1 = r1 < (sBase | 63) ? leafIndex(r1) : kLeafRows - 1;
      return eachIndex<Up>(k0, k1, [&](unsigned k) {
        hex_block *b = leafOf(e)->row[k];
        return !b || fn(b);
      });
    });
  });
}

// Visits the blocks of rows r0..r1 of the whole image in ascending or
// descending order.
template <bool Up, class Fn> void eachBlock(const hexdata *h, uint64_t r0, uint64_t r1, Fn fn) {
  if (r0 > r1)
    return;
  auto low = [&] {
    return !(r0 >> 24 == 0 && h->low) || visitRegion<Up>(h->low, 0, r0, std::min<uint64_t>(r1, 0xFFFFFF), fn);
  };
  auto far = [&](const std::pair<const uint64_t, hex_region *> &it) {
    const uint64_t base = it.first << 24;
    return visitRegion<Up>(it.second, base, std::max(r0, base), std::min(r1, base | 0xFFFFFF), fn);
  };
  const auto from = h->regions.lower_bound(std::max<uint64_t>(r0 >> 24, 1));
  const auto to = h->regions.upper_bound(r1 >> 24);
  if (Up) {
    if (!low())
      return;
    for (auto it = from; it != to; ++it)
      if (!far(*it))
        return;
  } else {
    for (auto it = std::make_reverse_iterator(to); it != std::make_reverse_iterator(from); ++it)
      if (!far(*it))
        return;
    low();
  }
}

template <class Fn> void eachBlockUp(const hexdata *h, uint64_t r0, uint64_t r1, Fn fn) {
  eachBlock<true>(h, r0, r1, fn);
}
template <class Fn> void eachBlockDown(const hexdata *h, uint64_t r0, uint64_t r1, Fn fn) {
  eachBlock<false>(h, r0, r1, fn);
}

// The columns of a row that an address range start..end covers.
inline unsigned firstCol(uint64_t row, uint64_t start) { return hex_rowOf(start) == row ? unsigned(start & kRowMask) : 0; }
inline unsigned lastCol(uint64_t row, uint64_t end) { return hex_rowOf(end) == row ? unsigned(end & kRowMask) : 255; }

// ---- attribute planes -------------------------------------------------------

// The bits of plane word w that stand for columns c0..c1.
inline uint64_t wordMask(unsigned w, unsigned c0, unsigned c1) {
  const unsigned lo = w * 64, hi = lo + 63;
  if (c1 < lo || c0 > hi)
    return 0;
  const unsigned a = std::max(c0, lo) - lo, b = std::min(c1, hi) - lo;
  return (b == 63 ? ~0ull : (1ull << (b + 1)) - 1) & ~((1ull << a) - 1);
}

inline void setBit(uint64_t *p, unsigned c) { p[c >> 6] |= 1ull << (c & 63); }
inline void clearBit(uint64_t *p, unsigned c) { p[c >> 6] &= ~(1ull << (c & 63)); }
inline bool bit(const uint64_t *p, unsigned c) { return hex_rowBit(p, c); }

inline void setAttr(hex_row &r, unsigned c, uint8_t a) {
  const unsigned w = c >> 6;
  const uint64_t m = 1ull << (c & 63);
  r.present[w] = (a & HEX_PRESENT) ? r.present[w] | m : r.present[w] & ~m;
  r.preserved[w] = (a & HEX_PRESERVED) ? r.preserved[w] | m : r.preserved[w] & ~m;
  r.forced[w] = (a & HEX_FORCED) ? r.forced[w] | m : r.forced[w] & ~m;
}

// True when any column of c0..c1 is set in the plane.
inline bool anyIn(const uint64_t *p, unsigned c0, unsigned c1) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    if (p[w] & wordMask(w, c0, c1))
      return true;
  return false;
}

inline unsigned countIn(const uint64_t *p, unsigned c0, unsigned c1) {
  unsigned n = 0;
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    n += unsigned(__builtin_popcountll(p[w] & wordMask(w, c0, c1)));
  return n;
}

inline void setIn(uint64_t *p, unsigned c0, unsigned c1) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    p[w] |= wordMask(w, c0, c1);
}

// First / last column in c0..c1 set in the plane; -1 if none.
int firstIn(const uint64_t *p, unsigned c0, unsigned c1) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    if (uint64_t v = p[w] & wordMask(w, c0, c1))
      return int(w * 64 + unsigned(__builtin_ctzll(v)));
  return -1;
}

int lastIn(const uint64_t *p, unsigned c0, unsigned c1) {
  for (unsigned w = (c1 >> 6) + 1; w-- > (c0 >> 6);)
    if (uint64_t v = p[w] & wordMask(w, c0, c1))
      return int(w * 64 + 63 - unsigned(__builtin_clzll(v)));
  return -1;
}

// Calls fn(c) for every column of c0..c1 set in the plane, in order; the
// plane may change under it.
template <class Fn> void eachSet(const uint64_t *p, unsigned c0, unsigned c1, Fn fn) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    for (uint64_t v = p[w] & wordMask(w, c0, c1); v; v &= v - 1)
      if (!fn(w * 64 + unsigned(__builtin_ctzll(v))))
        return;
}

// True when a present byte of columns c0..c1 was placed by force.
bool anyForcedPresent(const hex_row &r, unsigned c0, unsigned c1) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    if (r.present[w] & r.forced[w] & wordMask(w, c0, c1))
      return true;
  return false;
}

// Lowest / highest present address in start..end.
bool nextPresent(const hexdata *h, uint64_t start, uint64_t end, uint64_t *found) {
  if (h->hex_byteCount == 0)
    return false;
  start = std::max(start, h->hex_loAddr);
  end = std::min(end, h->hex_hiAddr);
  if (start > end)
    return false;
  // Most searches end in the row they start in (the writer's next record).
  const uint64_t row0 = hex_rowOf(start);
  if (const hex_block *b = findBlock(h, row0); b && b->present) {
    const int c = firstIn(b->r.present, unsigned(start & kRowMask), lastCol(row0, end));
    if (c >= 0) {
      *found = (row0 << 8) + unsigned(c);
      return true;
    }
  }
  if (row0 == hex_rowOf(end))
    return false;
  bool ok = false;
  eachBlockUp(h, row0 + 1, hex_rowOf(end), [&](const hex_block *b) {
    if (b->present == 0)
      return true;
    const int c = firstIn(b->r.present, 0, lastCol(b->row, end));
    if (c < 0)
      return true;
    *found = (b->row << 8) + unsigned(c);
    ok = true;
    return false;
  });
  return ok;
}

bool prevPresent(const hexdata *h, uint64_t start, uint64_t end, uint64_t *found) {
  bool ok = false;
  eachBlockDown(h, hex_rowOf(start), hex_rowOf(end), [&](const hex_block *b) {
    if (b->present == 0)
      return true;
    const int c = lastIn(b->r.present, firstCol(b->row, start), lastCol(b->row, end));
    if (c < 0)
      return true;
    *found = (b->row << 8) + unsigned(c);
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

// First column of c0..c1 whose note is not n; -1 when all carry n.
int firstOtherNote(const hex_block *b, unsigned c0, unsigned c1, const void *n) {
  if (!b || !(b->flags & BLK_NOTES))
    return n ? int(c0) : -1;
  if (b->notes) {
    for (unsigned c = c0; c <= c1; ++c)
      if (b->notes[c] != n)
        return int(c);
    return -1;
  }
  // A span: its note inside nlo..nhi, null outside.
  const bool inside = b->note == n;
  const bool outside = n == nullptr;
  for (unsigned c = c0; c <= c1;) {
    const bool in = b->note && c >= b->nlo && c <= b->nhi;
    if (!(in ? inside : outside))
      return int(c);
    if (in)
      c = unsigned(b->nhi) + 1;
    else if (b->note && c < b->nlo)
      c = b->nlo;
    else
      break;
  }
  return -1;
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
  const unsigned c = unsigned(addr & kRowMask);
  hex_row &r = b->r;
  if (bit(r.preserved, c)) {
    hex_setAddrError(EPRESERVED, addr);
    return 0;
  }
  if (bit(r.present, c)) {
    if (!force) {
      if (r.data[c] != v) {
        hex_setAddrError(ECLASH, addr);
        return 0;
      }
      return 1;
    }
    if (bit(r.forced, c))
      hex_setClobbered(addr, noteAt(b, c));
    r.data[c] = v;
    setBit(r.forced, c);
    return 1;
  }
  r.data[c] = v;
  setBit(r.present, c);
  if (force)
    setBit(r.forced, c);
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
  uint64_t stored = 0;
  for (uint64_t a = start;;) {
    const uint64_t last = std::min(a | kRowMask, end);
    const unsigned c0 = unsigned(a & kRowMask), c1 = unsigned(last & kRowMask), n = c1 - c0 + 1;
    hex_block *b = dataBlock(h, hex_rowOf(a));
    hex_row *r = b ? &b->r : nullptr;
    if (!b) {
      for (unsigned i = 0; i < n; ++i)
        hex_setError(EMEMORY);
    } else if (!anyIn(r->present, c0, c1)) {
      // Nothing there yet (preserved bytes are always present): the whole
      // stretch goes in at once; a forced mark left on an empty slot stays.
      std::memcpy(r->data + c0, bytes, n);
      setIn(r->present, c0, c1);
      if (force)
        setIn(r->forced, c0, c1);
      b->present = uint16_t(b->present + n);
      addBytes(h, a, last, n);
      stored += n;
    } else if (force && !anyIn(r->preserved, c0, c1) && !anyForcedPresent(*r, c0, c1)) {
      // Forced over plain bytes and gaps only: nothing to refuse or report.
      const unsigned added = n - countIn(r->present, c0, c1);
      std::memcpy(r->data + c0, bytes, n);
      setIn(r->present, c0, c1);
      setIn(r->forced, c0, c1);
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
unsigned mergeRow(hex_block *d, const hex_block *s, bool force, int *ok) {
  const uint8_t X = force ? HEX_FORCED : 0;
  const bool sNotes = s->flags & BLK_NOTES;
  // The notes of identical bytes follow src only under force.
  const bool takeSame = force && sNotes;
  hex_row &D = d->r;
  const hex_row &S = s->r;
  const uint64_t base = d->row << 8;
  if (std::memcmp(&D, &S, sizeof D) == 0) {
    if (X)
      for (unsigned w = 0; w < 4; ++w)
        D.forced[w] |= D.present[w];
    if (takeSame) {
      if (s->present == 256)
        mergeNotes(d, s);
      else
        eachSet(S.present, 0, 255, [&](unsigned c) {
          mergeNote(d, s, c);
          return true;
        });
    }
    return 0;
  }
  unsigned added = 0;
  eachSet(S.present, 0, 255, [&](unsigned c) {
    const uint8_t a = hex_rowAttr(&D, c), b = hex_rowAttr(&S, c);
    const uint8_t sv = S.data[c];
    if (D.data[c] == sv && a == b) {
      if (X)
        setBit(D.forced, c);
      if (takeSame)
        mergeNote(d, s, c);
      return true;
    }
    if (a & HEX_PRESERVED) {
      hex_setAddrError(EPRESERVED, base + c);
      *ok = 0;
      return true;
    }
    if (a & HEX_PRESENT) {
      if (!force) {
        if (D.data[c] != sv) {
          hex_setAddrError(ECLASH, base + c);
          *ok = 0;
        }
        return true;
      }
      if (a & HEX_FORCED)
        hex_setClobbered(base + c, noteAt(d, c));
    } else {
      ++added;
    }
    D.data[c] = sv;
    setAttr(D, c, uint8_t(b | X));
    if (sNotes)
      mergeNote(d, s, c);
    return true;
  });
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
  // Only rows within src's bounds take part.
  eachBlockUp(src, hex_rowOf(src->hex_loAddr), hex_rowOf(src->hex_hiAddr), [&](hex_block *s) {
    if (!(s->flags & BLK_DATA))
      return true;
    hex_block *d = findBlock(dst, s->row);
    if (!d && move) {
      detach(src, s);
      if (!(s->flags & BLK_NOTES)) { // dst gets an all-null note row
        s->flags |= BLK_NOTES;
        s->note = nullptr;
        s->nlo = 0;
        s->nhi = 255;
      }
      attach(dst, s);
      added += s->present;
      return true;
    }
    if (!d || !(d->flags & BLK_DATA)) {
      if (!d && !(d = blockOf(dst, s->row))) {
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
    added += mergeRow(d, s, force, &ok);
    return true;
  });
  dst->hex_byteCount += added;
  if (move)
    hex_clear(src);
  return failed ? 0 : ok;
}

void freeRegion(hex_region *R) {
  for (hex_mid *M : R->mid) {
    if (!M)
      continue;
    for (slot_t e : M->slot) {
      if (!e)
        continue;
      if (isLone(e)) {
        giveBlock(loneOf(e));
        continue;
      }
      for (hex_block *b : leafOf(e)->row)
        if (b)
          giveBlock(b);
      std::free(leafOf(e));
    }
    std::free(M);
  }
  std::free(R);
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
  if (h->low)
    freeRegion(h->low);
  for (auto &[key, R] : h->regions)
    freeRegion(R);
  h->low = nullptr;
  h->regions.clear();
  h->lastBlock = nullptr;
  h->lastRegion = nullptr;
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
  return b && bit(b->r.present, unsigned(addr & kRowMask));
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
  if (!b || !bit(b->r.present, unsigned(addr & kRowMask))) {
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
    const uint64_t a = start + i;
    const unsigned c0 = unsigned(a & kRowMask);
    const unsigned n = unsigned(std::min<uint64_t>(256 - c0, count - i));
    const hex_block *b = findBlock(h, hex_rowOf(a));
    for (unsigned k = 0; k < n; ++k) {
      if (b && bit(b->r.present, c0 + k))
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
  return b && bit(b->r.preserved, unsigned(addr & kRowMask));
}

int hex_anyPreserved(const hexdata *h, uint64_t start, uint64_t count) {
  if (noImage(h))
    return 0;
  if (count == 0) {
    hex_setError(EARG);
    return 0;
  }
  const uint64_t end = runLast(start, count);
  int any = 0;
  eachBlockUp(h, hex_rowOf(start), hex_rowOf(end), [&](const hex_block *b) {
    any = anyIn(b->r.preserved, firstCol(b->row, start), lastCol(b->row, end));
    return !any;
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
  if (n) {
    // A note ends at the first row without it, so this walk is no longer
    // than the rows that carry it.
    for (uint64_t a = start;;) {
      const uint64_t last = std::min(a | kRowMask, end);
      const int diff = firstOtherNote(findBlock(h, hex_rowOf(a)), unsigned(a & kRowMask),
                                      unsigned(last & kRowMask), n);
      if (diff >= 0)
        return (a & ~kRowMask) + unsigned(diff) - 1;
      if (last == end)
        return end;
      a = last + 1;
    }
  }
  // Null notes run up to the first note set; missing rows read null.
  uint64_t result = end;
  eachBlockUp(h, hex_rowOf(start), hex_rowOf(end), [&](const hex_block *b) {
    const int diff = firstOtherNote(b, firstCol(b->row, start), lastCol(b->row, end), nullptr);
    if (diff < 0)
      return true;
    result = (b->row << 8) + unsigned(diff) - 1;
    return false;
  });
  return result;
}

const hex_row *hex_getRow(const hexdata *h, uint64_t row) {
  if (noImage(h))
    return nullptr;
  const hex_block *b = findBlock(h, row);
  return b && (b->flags & BLK_DATA) ? &b->r : nullptr;
}

uint8_t *hex_rowData(hexdata *h, uint64_t row) {
  if (noImage(h))
    return nullptr;
  hex_block *b = findBlock(h, row);
  return b && (b->flags & BLK_DATA) ? b->r.data : nullptr;
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
  eachBlockUp(h, hex_rowOf(start), hex_rowOf(end), [&](hex_block *b) {
    const unsigned c0 = firstCol(b->row, start), c1 = lastCol(b->row, end);
    // Only present bytes change.
    for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w) {
      const uint64_t m = b->r.present[w] & wordMask(w, c0, c1);
      b->r.preserved[w] = on ? b->r.preserved[w] | m : b->r.preserved[w] & ~m;
    }
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
    const uint64_t last = std::min(a | kRowMask, end);
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
  eachBlockUp(h, hex_rowOf(start), hex_rowOf(runEnd), [&](hex_block *b) {
    const uint64_t base = b->row << 8;
    eachSet(b->r.present, firstCol(b->row, start), lastCol(b->row, runEnd), [&](unsigned c) {
      if (bit(b->r.preserved, c)) {
        hex_setAddrError(EPRESERVED, base + c);
        refused = true;
        return false;
      }
      if (bit(b->r.forced, c))
        hex_setClobbered(base + c, noteAt(b, c));
      clearBit(b->r.present, c); // HEX_FORCED stays on the empty slot
      b->r.data[c] = 0;
      --b->present;
      --h->hex_byteCount;
      ++deleted;
      return true;
    });
    return !refused;
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
      const bool found = nextPresent(h, end, h->hex_hiAddr, &lo);
      ROMWELD_ASSERT(found);
      h->hex_loAddr = lo;
    }
    if (h->hex_hiAddr >= start && h->hex_hiAddr <= runEnd) {
      uint64_t hi = 0;
      const bool found = start > 0 && prevPresent(h, h->hex_loAddr, start - 1, &hi);
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
