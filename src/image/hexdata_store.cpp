// Stores into the memory image: one byte or a run, by the plain or the
// forced rule, and the preserve mark.
#include <algorithm>
#include <cstring>

#include "image/hexdata_internal.h"

using namespace hexmem;

namespace {

// True when a present byte of columns c0..c1 was placed by force.
bool anyForcedPresent(const hex_row &r, unsigned c0, unsigned c1) {
  for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
    if (r.present[w] & r.forced[w] & plane_wordMask(w, c0, c1))
      return true;
  return false;
}

// One byte into an existing data row by the plain or forced rule.
int storeAt(hexdata *h, hex_block *b, uint64_t addr, uint8_t v, bool force) {
  const unsigned c = unsigned(addr & kRowMask);
  hex_row &r = b->r;
  if (plane_bit(r.preserved, c)) {
    hex_setAddrError(EPRESERVED, addr);
    return 0;
  }
  if (plane_bit(r.present, c)) {
    if (!force) {
      if (r.data[c] != v) {
        hex_setAddrError(ECLASH, addr);
        return 0;
      }
      return 1;
    }
    if (plane_bit(r.forced, c))
      hex_setClobbered(addr, noteAt(b, c));
    r.data[c] = v;
    plane_setBit(r.forced, c);
    return 1;
  }
  r.data[c] = v;
  plane_setBit(r.present, c);
  if (force)
    plane_setBit(r.forced, c);
  ++b->present;
  addBytes(h, addr, addr, 1);
  return 1;
}

int storeOne(hexdata *h, uint64_t addr, uint8_t v, bool force) {
  if (noImage(h))
    return 0;
  return storeAt(h, dataBlock(h, hex_rowOf(addr)), addr, v, force);
}

uint64_t putRun(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count, bool force) {
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
    hex_row *r = &b->r;
    if (!plane_any(r->present, c0, c1)) {
      // Nothing there yet (preserved bytes are always present): the whole
      // stretch goes in at once; a forced mark left on an empty slot stays.
      std::memcpy(r->data + c0, bytes, n);
      plane_setRange(r->present, c0, c1);
      if (force)
        plane_setRange(r->forced, c0, c1);
      b->present = uint16_t(b->present + n);
      addBytes(h, a, last, n);
      stored += n;
    } else if (force && !plane_any(r->preserved, c0, c1) && !anyForcedPresent(*r, c0, c1)) {
      // Forced over plain bytes and gaps only: nothing to refuse or report.
      const unsigned added = n - plane_count(r->present, c0, c1);
      std::memcpy(r->data + c0, bytes, n);
      plane_setRange(r->present, c0, c1);
      plane_setRange(r->forced, c0, c1);
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

} // namespace

int hex_storeByte(hexdata *h, uint64_t addr, uint8_t value) { return storeOne(h, addr, value, false); }
int hex_forceByte(hexdata *h, uint64_t addr, uint8_t value) { return storeOne(h, addr, value, true); }
int hex_putByte(hexdata *h, uint64_t addr, uint8_t value, int force) {
  return storeOne(h, addr, value, force != 0);
}

uint64_t hex_storeBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count) {
  return putRun(h, start, bytes, count, false);
}
uint64_t hex_putBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count, int force) {
  return putRun(h, start, bytes, count, force != 0);
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
      const uint64_t m = b->r.present[w] & plane_wordMask(w, c0, c1);
      b->r.preserved[w] = on ? b->r.preserved[w] | m : b->r.preserved[w] & ~m;
    }
    return true;
  });
  return 1;
}
