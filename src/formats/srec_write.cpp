// S-record writer: an S0 header, data records of one address width, a
// count record and the termination record of that width. The image is
// walked as runs of present bytes and the records are formatted into the
// shared block buffer (hextext.h).
#include "formats/srec.h"

#include <algorithm>

#include "formats/hextext.h"
#include "formats/ihex.h" // the start address reasons
#include "image/hex_errno.h"

namespace {

using namespace hextext;

// The highest address of 2, 3 and 4 address bytes.
constexpr uint64_t REACH[5] = {0, 0, 0xFFFFull, 0xFFFFFFull, 0xFFFFFFFFull};

struct writer : blockOut {
  using blockOut::blockOut;

  // One record of the type digit `type` with `width` address bytes.
  void record(char type, unsigned width, uint32_t addr, const uint8_t *d, uint32_t n) {
    char *p = room(2 * n + 16);
    *p++ = 'S';
    *p++ = type;
    const uint8_t count = static_cast<uint8_t>(width + n + 1);
    unsigned sum = count;
    p = put2(p, count);
    for (unsigned i = width; i-- > 0;) {
      const uint8_t v = static_cast<uint8_t>(addr >> (8 * i));
      sum += v;
      p = put2(p, v);
    }
    for (uint32_t i = 0; i < n; ++i) {
      sum += d[i];
      p = put2(p, d[i]);
    }
    p = put2(p, static_cast<uint8_t>(~sum));
    *p++ = '\n';
    done(p);
  }
};

// The address bytes of the data records: the fewest that reach both the
// data and the start address, or the variant's. 0 when the image cannot be
// written (EARG, EHEX recorded); a start address that cannot be written is
// noted with EHEX.
unsigned addressWidth(const ihex *x, unsigned variant) {
  if (variant > SREC_S37) {
    hex_setError(EARG);
    return 0;
  }
  const bool any = hex_getByteCount(x->image) > 0;
  const uint64_t hi = any ? hex_getHiAddr(x->image) : 0;
  unsigned width = variant + 1;
  if (variant == SREC_AUTO) {
    const uint64_t top = std::max<uint64_t>(hi, x->hasEIP ? x->EIP : 0);
    width = top <= REACH[2] ? 2 : top <= REACH[3] ? 3 : 4;
  }
  bool ok = true;
  if (hi > REACH[width]) {
    hex_setNumError(EHEX, SREC_REASON_S19_RANGE + width - 2);
    ok = false;
  }
  // Start addresses that cannot be written are dropped, not refused.
  if (x->hasEIP && x->EIP > REACH[width])
    hex_setNumError(EHEX, IHEX_REASON_NO_SLA);
  if (x->hasCS || x->hasIP)
    hex_setNumError(EHEX, IHEX_REASON_NO_SSA);
  return ok ? width : 0;
}

// The data records; returns how many were written.
uint64_t writeData(writer &w, const ihex *x, unsigned width) {
  const hexdata *img = x->image;
  if (hex_getByteCount(img) == 0)
    return 0;
  // The count byte counts the address and the checksum too.
  const uint32_t maxLen = recordLength(x, 255 - width - 1);
  const char type = static_cast<char>('0' + width - 1);
  const uint64_t hi = hex_getHiAddr(img);
  uint64_t next = hex_getLoAddr(img), a = 0, records = 0;
  uint8_t data[256];
  presentRuns runs{img};
  while (next <= hi && runs.next(next, &a)) {
    const uint32_t k = runs.take(a, untilBreak(x, a, maxLen), data);
    w.record(type, width, static_cast<uint32_t>(a), data, k);
    ++records;
    next = a + k;
  }
  return records;
}

} // namespace

int srec_write(const ihex *x, FILE *out, unsigned variant) {
  if (!x || !out) {
    hex_setError(ENULL);
    return 0;
  }
  const unsigned width = addressWidth(x, variant);
  if (width == 0)
    return 0;
  writer w(out);
  w.record('0', 2, 0, nullptr, 0);
  const uint64_t records = writeData(w, x, width);
  // A count too large for S6 is left out rather than written wrong: the
  // count record is the one record a file may go without.
  if (records <= REACH[2])
    w.record('5', 2, static_cast<uint32_t>(records), nullptr, 0);
  else if (records <= REACH[3])
    w.record('6', 3, static_cast<uint32_t>(records), nullptr, 0);
  const uint32_t start = x->hasEIP && x->EIP <= REACH[width] ? x->EIP : 0;
  w.record(static_cast<char>('0' + 11 - width), width, start, nullptr, 0);
  return w.finish() ? 1 : 0;
}
