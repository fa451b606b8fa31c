// The walk goes row by row. A row that holds no data takes its whole stretch
// in one store; in a row with data only the runs between present bytes are
// stored. Rows and runs that the mode skips cost no per-address work: the
// counting pattern's value at any address is computed from the number of
// periods ended since the range's start, not carried along the walk.
#include "image/hexdata_fill.h"

#include <cstring>
#include <vector>

#include "image/hex_errno.h"
#include "image/testsupport.h"

namespace {

class filler {
public:
  filler(hexdata *h, const fillspec *f, uint64_t lo) : h_(h), f_(f) {
    const uint32_t w = f->width;
    for (uint64_t v : f->values)
      for (uint32_t i = 0; i < w; ++i)
        pattern_.push_back(uint8_t(v >> (8 * i)));
    P_ = pattern_.size();
    counting_ = f->increment != 0;
    if (counting_) {
      // Only one value is ever held with an increment, so the pattern is
      // one number of w bytes. Each byte of the addend is a byte of the
      // 32-bit increment taken in turn, the four repeating above byte 3.
      const uint32_t inc = uint32_t(f->increment);
      for (uint32_t i = 0; i < w; ++i)
        step_ |= uint64_t((inc >> (8 * (i % 4))) & 0xFF) << (8 * i);
      first_ = f->values[0];
      loPeriod_ = lo / P_;
    } else if (256 % P_ == 0) {
      // Every row then starts at pattern position 0: one row serves all.
      for (unsigned c = 0; c < 256; ++c)
        tile_[c] = pattern_[c % P_];
      tiled_ = true;
    }
  }

  // Modes 0 and 3: the addresses of a0..a1 that hold no data.
  bool fillGaps(uint64_t a0, uint64_t a1) {
    for (uint64_t row = hex_rowOf(a0);; ++row) {
      const unsigned c0 = hex_rowOf(a0) == row ? unsigned(a0 & 0xFF) : 0;
      const unsigned c1 = hex_rowOf(a1) == row ? unsigned(a1 & 0xFF) : 255;
      const hex_row *r = hex_getRow(h_, row);
      if (!r) {
        if (!put(row, c0, c1, false))
          return false;
      } else {
        for (unsigned c = plane_next(r->present, c0, c1, false); c <= c1;) {
          const unsigned e = plane_next(r->present, c, c1, true);
          if (!put(row, c, e - 1, false))
            return false;
          c = plane_next(r->present, e, c1, false);
        }
      }
      if (row == hex_rowOf(a1))
        return true;
    }
  }

  // Mode 2: every address of a0..a1.
  bool forceAll(uint64_t a0, uint64_t a1) {
    for (uint64_t row = hex_rowOf(a0);; ++row) {
      const unsigned c0 = hex_rowOf(a0) == row ? unsigned(a0 & 0xFF) : 0;
      const unsigned c1 = hex_rowOf(a1) == row ? unsigned(a1 & 0xFF) : 255;
      if (!put(row, c0, c1, true))
        return false;
      if (row == hex_rowOf(a1))
        return true;
    }
  }

  // Mode 1: the addresses of a0..a1 that hold data; absent rows are
  // stepped over.
  bool forceUsed(uint64_t a0, uint64_t a1) {
    uint64_t at = a0;
    for (uint64_t p; hex_nextPresent(h_, at, &p) && p <= a1;) {
      const uint64_t row = hex_rowOf(p);
      const unsigned c1 = hex_rowOf(a1) == row ? unsigned(a1 & 0xFF) : 255;
      const hex_row *r = hex_getRow(h_, row);
      for (unsigned c = unsigned(p & 0xFF); c <= c1;) {
        const unsigned e = plane_next(r->present, c, c1, false);
        if (!put(row, c, e - 1, true))
          return false;
        c = plane_next(r->present, e, c1, true);
      }
      if (row == hex_rowOf(a1) || row == hex_rowOf(UINT64_MAX))
        return true;
      at = (row + 1) << 8;
    }
    return true;
  }

  // Mode 3: rows of R bytes at multiples of R (lo is one); those holding
  // data, even past a1, have their gaps up to a1 filled.
  bool fillDataRows(uint64_t lo, uint64_t a1, uint64_t R) {
    uint64_t at = lo;
    for (uint64_t p; hex_nextPresent(h_, at, &p);) {
      const uint64_t blk = p - p % R;
      if (blk > a1)
        return true;
      const uint64_t last = blk + (R - 1) < blk ? UINT64_MAX : blk + (R - 1);
      if (!fillGaps(blk, last < a1 ? last : a1))
        return false;
      if (last >= a1)
        return true;
      at = last + 1;
    }
    return true;
  }

private:
  // The pattern bytes of columns c0..c1 of a row, in buf_ (or the tile).
  const uint8_t *bytes(uint64_t row, unsigned c0, unsigned c1) {
    if (tiled_)
      return tile_;
    const uint64_t base = row << 8;
    if (!counting_) {
      uint64_t k = (base + c0) % P_;
      for (unsigned c = c0; c <= c1; ++c) {
        buf_[c] = pattern_[k];
        if (++k == P_)
          k = 0;
      }
      return buf_;
    }
    // Value of period m: the first value plus one step for each period that
    // ended between lo and it, modulo the value's width (masked by byte).
    uint64_t m = ~uint64_t(0), v = 0;
    for (unsigned c = c0; c <= c1; ++c) {
      const uint64_t a = base + c;
      if (a / P_ != m) {
        m = a / P_;
        v = first_ + (m - loPeriod_) * step_;
      }
      buf_[c] = uint8_t(v >> (8 * (a % P_)));
    }
    return buf_;
  }

  // Stores columns c0..c1 of a row, then owner and preserve marks. A
  // forced stretch stops at its first preserved byte, which is refused.
  bool put(uint64_t row, unsigned c0, unsigned c1, bool force) {
    const uint8_t *b = bytes(row, c0, c1);
    const uint64_t base = row << 8;
    unsigned stop = c1 + 1;
    if (force)
      if (const hex_row *r = hex_getRow(h_, row))
        stop = plane_next(r->preserved, c0, c1, true);
    if (stop > c0) {
      const unsigned n = stop - c0;
      if (hex_putBytes(h_, base + c0, b + c0, n, force) != n)
        return false;
      if (f_->policy.owner && !hex_setNote(h_, base + c0, base + stop - 1, f_->policy.owner))
        return false;
      if (f_->policy.preserve)
        hex_preserveData(h_, base + c0, base + stop - 1, 1);
    }
    if (stop <= c1) {
      hex_setAddrError(EPRESERVED, base + stop);
      return false;
    }
    return true;
  }

  hexdata *h_;
  const fillspec *f_;
  std::vector<uint8_t> pattern_;
  uint64_t P_ = 0;
  bool counting_ = false;
  uint64_t first_ = 0, step_ = 0, loPeriod_ = 0;
  bool tiled_ = false;
  uint8_t tile_[256];
  uint8_t buf_[256];
};

} // namespace

fill_walk hex_fillWalk(const fillspec *f) {
  uint64_t lo = f->range.start;
  uint64_t hi = f->range.hasEnd ? f->range.end : f->range.start;
  if (f->mode == FILL_DATA_ROWS) {
    const uint64_t R = f->rowLength;
    lo -= lo % R;
    // Intended: the upper bound grows by its own distance past a row
    // boundary, less one; it is not rounded to the end of its row. The sum
    // stops at the ends of the address space instead of wrapping round.
    const uint64_t grow = hi % R;
    if (grow == 0 && hi == 0)
      return {1, 0}; // ends below address 0: nothing
    hi = grow == 0 ? hi - 1 : hi > UINT64_MAX - (grow - 1) ? UINT64_MAX : hi + (grow - 1);
  }
  return {lo, hi};
}

int hex_fill(hexdata *h, const fillspec *f) {
  if (!h || !f) {
    hex_setError(ENULL);
    return 0;
  }
  if (!f->range.hasStart) {
    hex_setError(ENOSTART);
    return 0;
  }
  if (f->values.empty()) {
    hex_setError(ENOVALUE);
    return 0;
  }
  const auto [lo, hi] = hex_fillWalk(f);
  if (lo > hi)
    return 1;
  // Only these modes write where the image holds no row yet.
  if (f->mode == FILL_UNUSED || f->mode == FILL_ALL) {
    const uint64_t rows = hex_rowOf(hi) - hex_rowOf(lo) + 1;
    if (!hex_takeRows(h, rows - hex_rowsHeld(h, lo, hi)))
      return 0;
  }
  filler fl(h, f, lo);
  switch (f->mode) {
  case FILL_UNUSED:
    return fl.fillGaps(lo, hi);
  case FILL_USED:
    return fl.forceUsed(lo, hi);
  case FILL_ALL:
    return fl.forceAll(lo, hi);
  default:
    return fl.fillDataRows(lo, hi, f->rowLength);
  }
}
