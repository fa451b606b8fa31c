// Memory image internals, shared by the image's own files (directory,
// pools, notes, stores, merge and delete) and by nothing else.
//
// A row lives in a block found through a sparse directory
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
// the span 0..255) or, once the row's owners are mixed, a note table
// (hex_notes) whose size follows the number of owners the row has.
// Whether a row has notes at all matters to merging, which copies notes
// only from rows that have them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <utility>

#include "image/hex_errno.h"
#include "image/hexdata.h"
#include "image/rowplane.h"

namespace hexmem {

constexpr uint8_t BLK_DATA = 0x01;  // the data row exists (hex_getRow sees it)
constexpr uint8_t BLK_NOTES = 0x02; // the row has notes (a span or an array)

constexpr uint64_t kRowMask = 0xFF; // columns of one row

constexpr unsigned kMids = 1024;   // mids per region
constexpr unsigned kSlots = 256;   // slots per mid
constexpr unsigned kLeafRows = 64; // rows per slot

// A row's notes once its owners are mixed: each column names its owner by
// an index into a short table of the row's distinct owners (index 0: no
// note), packed `bits` to a column, so a row of two owners costs 96 bytes.
// The index words (256 * bits / 64) follow the header, then the table
// (2^bits - 1 owners). A row with more owners than 4 bits can name keeps a
// pointer per column instead (bits 64, no table): a row may have 256.
struct alignas(8) hex_notes {
  uint8_t bits;   // 1, 2 or 4 bits of index per column; 64: a pointer per column
  uint8_t owners; // table entries in use; an entry no column names may stay
  uint64_t *index() { return reinterpret_cast<uint64_t *>(this + 1); }
  const uint64_t *index() const { return reinterpret_cast<const uint64_t *>(this + 1); }
  const void **table() { return reinterpret_cast<const void **>(index() + 4 * bits); }
  const void *const *table() const { return reinterpret_cast<const void *const *>(index() + 4 * bits); }
  const void **column() { return reinterpret_cast<const void **>(this + 1); }
  const void *const *column() const { return reinterpret_cast<const void *const *>(this + 1); }
};
static_assert(sizeof(hex_notes) == 8 && sizeof(void *) == 8, "index words and owners follow the header");

inline unsigned notesCapacity(unsigned bits) { return bits == 64 ? 0 : (1u << bits) - 1; }
inline size_t notesSize(unsigned bits) {
  return sizeof(hex_notes) + 8 * (4 * size_t(bits) + notesCapacity(bits));
}
// The table index of column c (packed forms).
inline unsigned indexAt(const hex_notes *m, unsigned c) {
  const unsigned bit = c * m->bits;
  return unsigned(m->index()[bit >> 6] >> (bit & 63)) & ((1u << m->bits) - 1);
}
inline const void *mixedNote(const hex_notes *m, unsigned c) {
  if (m->bits == 64)
    return m->column()[c];
  const unsigned i = indexAt(m, c);
  return i ? m->table()[i - 1] : nullptr;
}

struct hex_block {
  hex_row r;
  uint64_t row;
  const void *note;  // the span's note, null when notes is set or none
  hex_notes *notes;  // the note table once a row's owners are mixed
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

} // namespace hexmem

struct hexdata {
  hexmem::hex_region *low = nullptr;                // rows below 2^24: addresses below 4 GiB
  std::map<uint64_t, hexmem::hex_region *> regions; // every other region, by row >> 24
  uint64_t hex_byteCount = 0;
  uint64_t hex_loAddr = 0;
  uint64_t hex_hiAddr = 0;
  // The last block found, for the many lookups that stay in one row.
  mutable hexmem::hex_block *lastBlock = nullptr;
  mutable const hexmem::hex_region *lastRegion = nullptr;
  mutable uint64_t lastRegionKey = 0;
  uint64_t rowsTaken = 0; // of the options' budget (hex_takeRows)
};

namespace hexmem {

// ---- pools (hexdata_pool.cpp) -----------------------------------------------
// Blocks and note tables are recycled across all images of the process.
// None of these returns for want of memory: the run ends first (alert.h).
hex_block *takeBlock(uint64_t row); // a zeroed block for a row
void giveBlock(hex_block *b);
// A note table of `bits` (1, 2, 4 or 64) with no owners and its index or
// columns uninitialised.
hex_notes *takeNotes(unsigned bits);
void giveNotes(hex_notes *n);
void *newNode(size_t size); // a zeroed directory node
void freeNode(void *n);
template <class T> T *newNode() { return static_cast<T *>(newNode(sizeof(T))); }

// ---- directory (hexdata_dir.cpp) --------------------------------------------
hex_block *findBlock(const hexdata *h, uint64_t row); // null when the row has no block
// The block of a row, created without a data row when missing; null when
// no block could be obtained.
hex_block *blockOf(hexdata *h, uint64_t row);
void attach(hexdata *h, hex_block *b);       // into the directory at its row, which holds none
void detach(hexdata *h, const hex_block *b); // out of the directory; its nodes stay
void freeRegion(hex_region *R);

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

// ---- rows and checks ---------------------------------------------------------

inline void setAttr(hex_row &r, unsigned c, uint8_t a) {
  const unsigned w = c >> 6;
  const uint64_t m = uint64_t(1) << (c & 63);
  r.present[w] = (a & HEX_PRESENT) ? r.present[w] | m : r.present[w] & ~m;
  r.preserved[w] = (a & HEX_PRESERVED) ? r.preserved[w] | m : r.preserved[w] & ~m;
  r.forced[w] = (a & HEX_FORCED) ? r.forced[w] | m : r.forced[w] & ~m;
}

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

// Lowest / highest present address in start..end; false when none.
bool nextPresent(const hexdata *h, uint64_t start, uint64_t end, uint64_t *found);
bool prevPresent(const hexdata *h, uint64_t start, uint64_t end, uint64_t *found);

// ---- notes (hexdata_notes.cpp) -------------------------------------------------

inline const void *noteAt(const hex_block *b, unsigned c) {
  if (b->notes)
    return mixedNote(b->notes, c);
  return c >= b->nlo && c <= b->nhi ? b->note : nullptr;
}
// Sets the note of columns c0..c1.
void setNotes(hex_block *b, unsigned c0, unsigned c1, const void *n);
// Gives d the note s has at column c, or s's notes for the whole row.
void mergeNote(hex_block *d, const hex_block *s, unsigned c);
void mergeNotes(hex_block *d, const hex_block *s);
// First column of c0..c1 whose note is not n; -1 when all carry n.
int firstOtherNote(const hex_block *b, unsigned c0, unsigned c1, const void *n);

// ---- stores (hexdata_store.cpp) ------------------------------------------------

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

} // namespace hexmem
