// Absent slots hold 0, and 0 AND anything is 0, so a stretch of a row is
// masked whole, present or not; only preserved bytes need looking for.
#include "image/hexdata_mask.h"

#include "image/hex_errno.h"

int hex_mask(hexdata *h, const maskspec *m) {
  if (!h || !m) {
    hex_setError(ENULL);
    return 0;
  }
  const uint64_t n = m->masks.size();
  if (n == 0) {
    hex_setError(ENOMASK);
    return 0;
  }
  if (hex_getByteCount(h) == 0)
    return 1;
  const uint64_t first = m->range.hasStart ? std::max(m->range.start, hex_getLoAddr(h)) : hex_getLoAddr(h);
  const uint64_t last = m->range.hasEnd ? std::min(m->range.end, hex_getHiAddr(h)) : hex_getHiAddr(h);
  if (last < first)
    return 1;

  // A mask whose length divides 256 lines up the same way in every row.
  uint8_t tile[256];
  const bool tiled = 256 % n == 0;
  if (tiled)
    for (unsigned c = 0; c < 256; ++c)
      tile[c] = m->masks[c % n];

  for (uint64_t at = first, p; hex_nextPresent(h, at, &p) && p <= last;) {
    const uint64_t row = hex_rowOf(p);
    const unsigned c0 = unsigned(p & 0xFF);
    const unsigned c1 = hex_rowOf(last) == row ? unsigned(last & 0xFF) : 255;
    const hex_row *r = hex_getRow(h, row);
    uint8_t *data = hex_rowData(h, row);
    const unsigned stop = plane_next(r->preserved, c0, c1, true);
    if (tiled) {
      for (unsigned c = c0; c < stop; ++c)
        data[c] &= tile[c];
    } else {
      uint64_t k = ((row << 8) + c0) % n;
      for (unsigned c = c0; c < stop; ++c) {
        data[c] &= m->masks[k];
        if (++k == n)
          k = 0;
      }
    }
    if (m->preserve && stop > c0)
      hex_preserveData(h, (row << 8) + c0, (row << 8) + stop - 1, 1);
    if (stop <= c1) {
      hex_setAddrError(EPRESERVED, (row << 8) + stop);
      return 0;
    }
    if (row == hex_rowOf(last))
      break;
    at = (row + 1) << 8;
  }
  return 1;
}
