// Notes of the memory image: the owner of every address, kept per row as
// none, one span or a note table (hexdata_internal.h).
#include <algorithm>
#include <cstring>

#include "image/hexdata_internal.h"

namespace hexmem {

namespace {

// The bits of index word k that hold columns c0..c1 of a packed table.
uint64_t indexBits(const hex_notes *m, unsigned k, unsigned c0, unsigned c1) {
  return plane_wordMask(k, c0 * m->bits, c1 * m->bits + m->bits - 1);
}

// Index i in every column of a packed word.
uint64_t indexPattern(const hex_notes *m, unsigned i) {
  return i * (~uint64_t(0) / ((uint64_t(1) << m->bits) - 1));
}

void fillIndex(hex_notes *m, unsigned c0, unsigned c1, unsigned i) {
  const uint64_t pattern = indexPattern(m, i);
  uint64_t *w = m->index();
  for (unsigned k = c0 * m->bits >> 6; k <= (c1 * m->bits + m->bits - 1) >> 6; ++k) {
    const uint64_t bits = indexBits(m, k, c0, c1);
    w[k] = (w[k] & ~bits) | (pattern & bits);
  }
}

// The table index of note n (0 for none); -1 when the table lacks it.
int indexOf(const hex_notes *m, const void *n) {
  if (!n)
    return 0;
  for (unsigned i = 0; i < m->owners; ++i)
    if (m->table()[i] == n)
      return int(i) + 1;
  return -1;
}

// An index that no column outside c0..c1 names, so that it can name
// another owner; 0 when every entry is still in use.
unsigned unusedIndex(const hex_notes *m, unsigned c0, unsigned c1) {
  uint32_t used = 1;
  for (unsigned c = 0; c < 256; ++c)
    if (c < c0 || c > c1)
      used |= uint32_t(1) << indexAt(m, c);
  for (unsigned i = 1; i <= m->owners; ++i)
    if (!((used >> i) & 1))
      return i;
  return 0;
}

// The same notes in the next larger table.
hex_notes *grown(const hex_notes *m) {
  hex_notes *g = takeNotes(m->bits == 4 ? 64 : m->bits * 2u);
  if (g->bits == 64) {
    for (unsigned c = 0; c < 256; ++c)
      g->column()[c] = mixedNote(m, c);
    return g;
  }
  g->owners = m->owners;
  std::copy_n(m->table(), m->owners, g->table());
  std::fill_n(g->index(), 4 * g->bits, 0);
  for (unsigned c = 0; c < 256; ++c)
    fillIndex(g, c, c, indexAt(m, c));
  return g;
}

// Sets the note of columns c0..c1 of a row whose owners are mixed.
void setMixed(hex_block *b, unsigned c0, unsigned c1, const void *n) {
  hex_notes *m = b->notes;
  int i = m->bits == 64 ? 0 : indexOf(m, n);
  if (i < 0) { // n is new to the row: a free entry, else a larger table
    unsigned e = m->owners < notesCapacity(m->bits) ? ++m->owners : unusedIndex(m, c0, c1);
    if (!e) {
      hex_notes *g = grown(m);
      giveNotes(m);
      b->notes = m = g;
      e = m->bits == 64 ? 0 : ++m->owners;
    }
    if (e)
      m->table()[e - 1] = n;
    i = int(e);
  }
  if (m->bits == 64)
    std::fill(m->column() + c0, m->column() + c1 + 1, n);
  else
    fillIndex(m, c0, c1, unsigned(i));
}

// Gives d the notes of s for the whole row (s has notes).
void copyNotes(hex_block *d, const hex_block *s) {
  d->flags |= BLK_NOTES;
  if (s->notes) {
    const unsigned bits = s->notes->bits;
    if (!d->notes || d->notes->bits != bits) {
      hex_notes *m = takeNotes(bits);
      if (d->notes)
        giveNotes(d->notes);
      d->notes = m;
    }
    std::memcpy(static_cast<void *>(d->notes), s->notes, notesSize(bits));
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
}

} // namespace

// Sets the note of columns c0..c1.
void setNotes(hex_block *b, unsigned c0, unsigned c1, const void *n) {
  b->flags |= BLK_NOTES;
  if (b->notes) {
    if (c0 == 0 && c1 == 255) {
      giveNotes(b->notes);
      b->notes = nullptr;
      b->note = n;
      b->nlo = 0;
      b->nhi = 255;
      return;
    }
    setMixed(b, c0, c1, n);
    return;
  }
  const void *cur = b->note;
  unsigned lo = b->nlo, hi = b->nhi;
  bool covers = c0 <= lo && c1 >= hi;
  if (!cur || covers) {
    if (!cur && !n)
      return;
    b->note = n;
    b->nlo = uint8_t(n ? c0 : 0);
    b->nhi = uint8_t(n ? c1 : 255);
    return;
  }
  if (c1 < lo || c0 > hi) { // disjoint from the span
    if (!n)
      return;
    if (n == cur && (c1 + 1 == lo || c0 == hi + 1)) {
      b->nlo = uint8_t(std::min(lo, c0));
      b->nhi = uint8_t(std::max(hi, c1));
      return;
    }
  } else if (n == cur) { // overlapping the span with its own note
    b->nlo = uint8_t(std::min(lo, c0));
    b->nhi = uint8_t(std::max(hi, c1));
    return;
  } else if (!n && c0 <= lo) { // clearing the span's low end
    b->nlo = uint8_t(c1 + 1);
    return;
  } else if (!n && c1 >= hi) { // clearing its high end
    b->nhi = uint8_t(c0 - 1);
    return;
  }
  // The span's owner stays on some of its columns; n adds a second one
  // unless it is that owner or none.
  hex_notes *m = takeNotes(n && n != cur ? 2 : 1);
  m->owners = 1;
  m->table()[0] = cur;
  std::fill_n(m->index(), 4 * m->bits, 0);
  fillIndex(m, lo, hi, 1);
  b->notes = m;
  b->note = nullptr;
  setMixed(b, c0, c1, n); // the table has room for n
}

// Gives d the note s has at column c, or s's notes for the whole row.
void mergeNote(hex_block *d, const hex_block *s, unsigned c) { setNotes(d, c, c, noteAt(s, c)); }

void mergeNotes(hex_block *d, const hex_block *s) { copyNotes(d, s); }

// First column of c0..c1 whose note is not n; -1 when all carry n.
int firstOtherNote(const hex_block *b, unsigned c0, unsigned c1, const void *n) {
  if (!b || !(b->flags & BLK_NOTES))
    return n ? int(c0) : -1;
  if (const hex_notes *m = b->notes) {
    if (m->bits == 64) {
      for (unsigned c = c0; c <= c1; ++c)
        if (m->column()[c] != n)
          return int(c);
      return -1;
    }
    const int i = indexOf(m, n);
    if (i < 0)
      return int(c0);
    // A word of index bits at a time.
    const uint64_t pattern = indexPattern(m, unsigned(i));
    for (unsigned k = c0 * m->bits >> 6; k <= (c1 * m->bits + m->bits - 1) >> 6; ++k)
      if (const uint64_t diff = (m->index()[k] ^ pattern) & indexBits(m, k, c0, c1))
        return int((k * 64 + unsigned(__builtin_ctzll(diff))) / m->bits);
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
    setNotes(blockOf(h, hex_rowOf(a)), unsigned(a & kRowMask), unsigned(last & kRowMask), note);
    if (last == end)
      return 1;
    a = last + 1;
  }
}
