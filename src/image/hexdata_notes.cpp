// Notes of the memory image: the owner of every address, kept per row as
// none, one span or a 256-entry array (hexdata_internal.h).
#include <algorithm>
#include <cstring>

#include "common/alert.h"
#include "image/hexdata_internal.h"

namespace hexmem {

namespace {

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

} // namespace

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

} // namespace hexmem

using namespace hexmem;

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
