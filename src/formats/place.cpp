#include "formats/place.h"

#include <algorithm>
#include <array>
#include <unordered_map>

#include "image/hex_errno.h"

namespace {

// The distance an offset moves data down; 0 for an offset that moves it up.
uint64_t downBy(int32_t offset) { return offset < 0 ? uint64_t(-int64_t(offset)) : 0; }

} // namespace

bool ihex_readspec_setStart(ihex_readspec *s, uint64_t value) {
  if (record_isNull(s))
    return false;
  if (s->range.hasEnd && value > s->range.end)
    return record_refuse(EBADADDR);
  if (value < downBy(s->offset))
    return record_refuse(EBELOWZERO);
  return range_setStart(&s->range, value);
}

bool ihex_readspec_setEnd(ihex_readspec *s, uint64_t value) {
  return !record_isNull(s) && range_setEnd(&s->range, value);
}

bool ihex_readspec_setOffset(ihex_readspec *s, int32_t value) {
  if (record_isNull(s))
    return false;
  if (s->range.hasStart && s->range.start < downBy(value))
    return record_refuse(EBELOWZERO);
  s->offset = value;
  return true;
}

// The addresses a stream placed whose bytes were left out of its image
// because the image it is about to be merged into holds them already: a bit
// per column for rows left out in part, and a bit per row (in groups of 64
// rows) once every column of a row was left out, so a long overlap costs a
// few bytes per row.
using rowBits = std::array<uint64_t, 4>;
constexpr rowBits ALL_COLUMNS = {~0ull, ~0ull, ~0ull, ~0ull};

struct place_dropped {
  const hexdata *into = nullptr;
  std::unordered_map<uint64_t, rowBits> part;
  std::unordered_map<uint64_t, uint64_t> whole; // by row / 64
  uint64_t count = 0, lo = 0, hi = 0;
  uint64_t lastRow = 0;
  const rowBits *last = nullptr; // the bits of lastRow, once looked up

  // The left-out columns of a row; null when none.
  const rowBits *find(uint64_t row) {
    if (last && lastRow == row)
      return last;
    const rowBits *b = nullptr;
    auto w = whole.find(row >> 6);
    if (w != whole.end() && (w->second >> (row & 63) & 1)) {
      b = &ALL_COLUMNS;
    } else {
      auto p = part.find(row);
      if (p != part.end())
        b = &p->second;
    }
    if (b) {
      lastRow = row;
      last = b;
    }
    return b;
  }

  // Adds the columns `cols` of a row (none left out before), the lowest
  // and highest at first and lastAddr.
  void add(uint64_t row, const rowBits &cols, unsigned n, uint64_t first, uint64_t lastAddr) {
    rowBits &b = part[row];
    for (int w = 0; w < 4; ++w)
      b[w] |= cols[w];
    last = &b;
    lastRow = row;
    if (b == ALL_COLUMNS) {
      part.erase(row);
      whole[row >> 6] |= uint64_t(1) << (row & 63);
      last = &ALL_COLUMNS;
    }
    lo = count == 0 ? first : std::min(lo, first);
    hi = count == 0 ? lastAddr : std::max(hi, lastAddr);
    count += n;
  }
};

namespace {

void flushNotes(place_sink &r) {
  if (r.notePending)
    hex_setNote(r.img, r.noteLo, r.noteHi, r.spec->policy.owner);
  r.notePending = false;
}

bool continuesNotes(const place_sink &r, uint64_t ia) {
  return r.notePending && ia == r.noteHi + 1 && r.noteHi != UINT64_MAX;
}

// Before a store at ia: a byte stored again must find the note of the
// store before it (a forced conflict names that owner), so the pending
// notes go on unless ia continues them.
void beforeStore(place_sink &r, uint64_t ia) {
  if (!continuesNotes(r, ia))
    flushNotes(r);
}

// Gives ia..last the owner's note: records follow one another, so the
// notes of a whole run of them go on in one call.
void note(place_sink &r, uint64_t ia, uint64_t last) {
  if (!r.spec || !r.spec->policy.owner)
    return;
  if (continuesNotes(r, ia)) {
    r.noteHi = last;
    return;
  }
  flushNotes(r);
  r.noteLo = ia;
  r.noteHi = last;
  r.notePending = true;
}

// Stores a stretch into the stream's image as a plain store with its note.
bool keep(place_sink &r, uint64_t ia, const uint8_t *d, uint64_t n) {
  beforeStore(r, ia);
  bool all = hex_storeBytes(r.img, ia, d, n) == n;
  note(r, ia, ia + n - 1);
  return all;
}

// Stores a run of image addresses for a plain merge into r.drop->into. A
// byte is left out when this stream has not placed its address yet and the
// merge would change nothing there (an equal byte, present and not
// preserved). A later byte at a left-out address is judged against the
// equal byte the image holds, as the stream's own image would have judged
// it. Kept stretches go in one run each, so every refusal is recorded in
// address order, as with no byte left out. True when no byte was refused.
bool storeDropping(place_sink &r, uint64_t ia, const uint8_t *d, uint64_t n) {
  place_dropped &k = *r.drop;
  bool all = true;
  for (uint64_t i = 0; i < n;) {
    const uint64_t a = ia + i;
    const unsigned c0 = static_cast<unsigned>(a & 0xFF);
    const unsigned m = static_cast<unsigned>(std::min<uint64_t>(n - i, 256 - c0));
    const uint8_t *v = d + i;
    i += m;
    const uint64_t row = hex_rowOf(a);
    const hex_row *into = hex_getRow(k.into, row);
    if (!into) {
      all &= keep(r, a, v, m);
      continue;
    }
    const hex_row *own = hex_getRow(r.img, row);
    const rowBits *seen = k.find(row);
    // Columns of this piece are distinct, so bits left out now cannot be
    // met again before the piece is done.
    rowBits fresh{};
    unsigned nFresh = 0, firstFresh = 0, lastFresh = 0;
    for (unsigned j = 0; j < m;) {
      const unsigned from = j;
      bool again = false;
      for (; j < m; ++j) {
        const unsigned c = c0 + j;
        again = seen && ((*seen)[c >> 6] >> (c & 63) & 1);
        if (again)
          break;
        if (own && plane_bit(own->present, c))
          continue;
        if (plane_bit(into->present, c) && !plane_bit(into->preserved, c) && into->data[c] == v[j])
          break;
      }
      if (j > from)
        all &= keep(r, a + from, v + from, j - from);
      if (j == m)
        break;
      const unsigned c = c0 + j;
      if (again) {
        if (into->data[c] != v[j]) {
          hex_setAddrError(ECLASH, a + j);
          all = false;
        }
      } else {
        fresh[c >> 6] |= uint64_t(1) << (c & 63);
        if (nFresh++ == 0)
          firstFresh = j;
        lastFresh = j;
      }
      ++j;
    }
    if (nFresh)
      k.add(row, fresh, nFresh, a + firstFresh, a + lastFresh);
  }
  return all;
}

} // namespace

place_sink::place_sink(hexdata *image, const ihex_readspec *readSpec, const hexdata *mergeInto)
    : img(image), spec(readSpec) {
  // A forced merge changes equal bytes too (their mark and owner), and a
  // preserving read refuses a second byte at one address even when equal:
  // then every byte is kept.
  const bool plain = !spec || (!spec->policy.clobber && !spec->policy.preserve);
  if (mergeInto && mergeInto != img && plain) {
    drop = std::make_unique<place_dropped>();
    drop->into = mergeInto;
  }
}

place_sink::~place_sink() { flushNotes(*this); }

void place_finish(place_sink *s) { flushNotes(*s); }

place_result place_piece(place_sink *r, uint64_t fa, const uint8_t *d, uint64_t n) {
  if (n == 0)
    return PLACE_OK;
  const ihex_readspec *s = r->spec;
  int64_t offset = 0;
  if (s) {
    const addr_range &range = s->range;
    if (range.hasStart && fa < range.start) {
      const uint64_t skip = range.start - fa;
      if (skip >= n)
        return PLACE_OK;
      fa += skip;
      d += skip;
      n -= skip;
    }
    if (range.hasEnd) {
      if (fa > range.end)
        return PLACE_OK;
      if (n - 1 > range.end - fa)
        n = range.end - fa + 1;
    }
    offset = s->offset;
    // Deliberately every piece, not only a record's first byte: the bytes a
    // wrapping record brings back below address 0 would land at the top of
    // the 64-bit space, which no output variant can hold.
    if (offset < 0 && fa < static_cast<uint64_t>(-offset)) {
      hex_setError(EBELOWZERO);
      return PLACE_STOP;
    }
  }
  const uint64_t ia = fa + static_cast<uint64_t>(offset);
  if (r->drop)
    return storeDropping(*r, ia, d, n) ? PLACE_OK : PLACE_REFUSED;
  const bool force = s && s->policy.clobber;
  beforeStore(*r, ia);
  const place_result result = hex_putBytes(r->img, ia, d, n, force) == n ? PLACE_OK : PLACE_REFUSED;
  if (s && s->policy.preserve)
    hex_preserveData(r->img, ia, ia + n - 1, 1);
  note(*r, ia, ia + n - 1);
  return result;
}

uint64_t place_rows(const ihex_readspec *settings, uint64_t fa, uint64_t n) {
  if (n == 0)
    return 0;
  uint64_t last = fa + (n - 1);
  if (last < fa)
    last = UINT64_MAX;
  int64_t offset = 0;
  if (settings) {
    if (settings->range.hasStart)
      fa = std::max(fa, settings->range.start);
    if (settings->range.hasEnd)
      last = std::min(last, settings->range.end);
    offset = settings->offset;
  }
  if (fa > last)
    return 0;
  // Only the column of the first byte matters, so an address that the
  // offset wraps still counts right.
  const uint64_t col = (fa + static_cast<uint64_t>(offset)) & 0xFF;
  const uint64_t span = last - fa; // bytes less one
  return span / 256 + 1 + (col + span % 256 > 255 ? 1 : 0);
}

ihex_extent place_extent(const place_sink *s) {
  ihex_extent placed;
  const hexdata *img = s->img;
  if (hex_getByteCount(img) > 0)
    placed = {hex_getByteCount(img), hex_getLoAddr(img), hex_getHiAddr(img)};
  if (const place_dropped *k = s->drop.get(); k && k->count > 0) {
    placed.lo = placed.count == 0 ? k->lo : std::min(placed.lo, k->lo);
    placed.hi = placed.count == 0 ? k->hi : std::max(placed.hi, k->hi);
    placed.count += k->count;
  }
  return placed;
}
