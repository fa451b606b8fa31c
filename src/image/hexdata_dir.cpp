// Memory image directory: finding, adding and removing rows, walking the
// rows of a range, creating and emptying images, bounds and queries.
#include <algorithm>

#include "image/hexdata_internal.h"
#include "image/testsupport.h"

namespace hexmem {

namespace {

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

} // namespace

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
      freeNode(leafOf(e));
    }
    freeNode(M);
  }
  freeNode(R);
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
    const unsigned c1 = lastCol(row0, end);
    const unsigned c = plane_next(b->r.present, unsigned(start & kRowMask), c1, true);
    if (c <= c1) {
      *found = (row0 << 8) + c;
      return true;
    }
  }
  if (row0 == hex_rowOf(end))
    return false;
  bool ok = false;
  eachBlockUp(h, row0 + 1, hex_rowOf(end), [&](const hex_block *b) {
    if (b->present == 0)
      return true;
    const unsigned c1 = lastCol(b->row, end);
    const unsigned c = plane_next(b->r.present, 0, c1, true);
    if (c > c1)
      return true;
    *found = (b->row << 8) + c;
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
    const int c = plane_last(b->r.present, firstCol(b->row, start), lastCol(b->row, end));
    if (c < 0)
      return true;
    *found = (b->row << 8) + unsigned(c);
    ok = true;
    return false;
  });
  return ok;
}

} // namespace hexmem

using namespace hexmem;

// ---- creation and bounds ----------------------------------------------------

hexdata *hex_create() { return new hexdata; }

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
  return b && plane_bit(b->r.present, unsigned(addr & kRowMask));
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
  if (!b || !plane_bit(b->r.present, unsigned(addr & kRowMask))) {
    hex_setError(ENODATA);
    return 0;
  }
  return b->r.data[addr & kRowMask];
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
    any = plane_any(b->r.preserved, firstCol(b->row, start), lastCol(b->row, end));
    return !any;
  });
  return any;
}

bool hex_nextPresent(const hexdata *h, uint64_t start, uint64_t *found) {
  if (!h || !found) {
    hex_setError(ENULL);
    return false;
  }
  return nextPresent(h, start, UINT64_MAX, found);
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

// ---- the rows options may add -------------------------------------------------

namespace {
uint64_t rowBudget = HEX_ROW_BUDGET; // lowered by tests
} // namespace

void hex_setRowBudget(uint64_t rows) { rowBudget = rows; }

uint64_t hex_rowsHeld(const hexdata *h, uint64_t first, uint64_t last) {
  if (noImage(h) || first > last)
    return 0;
  uint64_t held = 0;
  eachBlockUp(h, hex_rowOf(first), hex_rowOf(last), [&](const hex_block *) {
    ++held;
    return true;
  });
  return held;
}

bool hex_takeRows(hexdata *h, uint64_t n, uint32_t copies) {
  if (noImage(h))
    return false;
  if (n > rowBudget - std::min(rowBudget, h->rowsTaken)) {
    hex_setBudgetError(n, copies);
    return false;
  }
  h->rowsTaken += n;
  return true;
}
