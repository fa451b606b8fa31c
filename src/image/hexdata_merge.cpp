// Merging one memory image into another by the merge rules, and deleting
// bytes.
#include <algorithm>
#include <cstring>

#include "common/check.h"
#include "image/hexdata_internal.h"

using namespace hexmem;

namespace {

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
        plane_eachSet(S.present, 0, 255, [&](unsigned c) {
          mergeNote(d, s, c);
          return true;
        });
    }
    return 0;
  }
  unsigned added = 0;
  plane_eachSet(S.present, 0, 255, [&](unsigned c) {
    const uint8_t a = hex_rowAttr(&D, c), b = hex_rowAttr(&S, c);
    const uint8_t sv = S.data[c];
    if (D.data[c] == sv && a == b) {
      if (X)
        plane_setBit(D.forced, c);
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
      if (!d)
        d = blockOf(dst, s->row);
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
  return ok;
}

} // namespace

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
    plane_eachSet(b->r.present, firstCol(b->row, start), lastCol(b->row, runEnd), [&](unsigned c) {
      if (plane_bit(b->r.preserved, c)) {
        hex_setAddrError(EPRESERVED, base + c);
        refused = true;
        return false;
      }
      if (plane_bit(b->r.forced, c))
        hex_setClobbered(base + c, noteAt(b, c));
      plane_clearBit(b->r.present, c); // HEX_FORCED stays on the empty slot
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

