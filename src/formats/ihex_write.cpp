// Intel HEX writer: walks the image as runs of present bytes and formats
// records into the shared block buffer (hextext.h).
#include "formats/hextext.h"
#include "formats/ihex.h"
#include "image/hex_errno.h"

// True, with ENULL recorded, when a required object is missing.
template <class T> static bool missing(const T *p) {
  if (p)
    return false;
  hex_setError(ENULL);
  return true;
}

namespace {

using namespace hextext;

constexpr uint64_t FORMAT_TOP[4] = {0xFFFFull, 0xFFFFFull, 0xFFFFFFFFull, 0xFFFFFFFFull};

struct writer : blockOut {
  using blockOut::blockOut;

  void record(uint8_t type, uint32_t addr, const uint8_t *d, uint32_t n) {
    char *p = room(2 * n + 16);
    *p++ = ':';
    const uint8_t ah = static_cast<uint8_t>(addr >> 8), al = static_cast<uint8_t>(addr);
    unsigned sum = n + ah + al + type;
    p = put2(p, static_cast<uint8_t>(n));
    p = put2(p, ah);
    p = put2(p, al);
    p = put2(p, type);
    for (uint32_t i = 0; i < n; ++i) {
      sum += d[i];
      p = put2(p, d[i]);
    }
    p = put2(p, static_cast<uint8_t>(-sum));
    *p++ = '\n';
    done(p);
  }
  void word16(uint8_t type, uint32_t v) {
    const uint8_t d[2] = {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    record(type, 0, d, 2);
  }
  void word32(uint8_t type, uint32_t v) {
    const uint8_t d[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                          static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    record(type, 0, d, 4);
  }
};

// Whether the variant can hold the image; records EHEX / EARG.
bool checkForWrite(const ihex *x, unsigned code) {
  if (missing(x))
    return false;
  if (code > 3) {
    hex_setError(EARG);
    return false;
  }
  bool ok = true;
  if (hex_getByteCount(x->image) > 0 && hex_getHiAddr(x->image) > FORMAT_TOP[code]) {
    hex_setNumError(EHEX, code == 3 ? 2 : code);
    ok = false;
  }
  // Start addresses a variant cannot carry are dropped, not refused.
  if ((code == 0 || code == 1) && x->hasEIP)
    hex_setNumError(EHEX, IHEX_REASON_NO_SLA);
  if (code != 1 && (x->hasCS || x->hasIP))
    hex_setNumError(EHEX, IHEX_REASON_NO_SSA);
  return ok;
}

} // namespace


int ihex_write(const ihex *x, FILE *out, unsigned code) {
  if (!x || !out) {
    hex_setError(ENULL);
    return 0;
  }
  if (!checkForWrite(x, code))
    return 0;
  writer w(out);
  // Records carry at most 255 bytes.
  const uint32_t maxLen = recordLength(x, 255);
  const hexdata *img = x->image;
  if (hex_getByteCount(img) > 0) {
    const uint64_t hi = hex_getHiAddr(img);
    uint64_t base = 0, next = hex_getLoAddr(img), a = 0;
    bool extended = false;
    uint8_t data[256];
    presentRuns runs{img};
    while (next <= hi && runs.next(next, &a)) {
      if (a - base >= 0x10000 || (code == 3 && !extended)) {
        base = a & ~0xFFFFull;
        if (code == 1)
          w.word16(0x02, static_cast<uint32_t>(base >> 4));
        else
          w.word16(0x04, static_cast<uint32_t>(base >> 16));
        extended = true;
      }
      const uint32_t offset = static_cast<uint32_t>(a - base);
      const uint64_t limit = untilBreak(x, a, std::min<uint64_t>(maxLen, 0x10000 - offset));
      const uint32_t k = runs.take(a, limit, data);
      w.record(0x00, offset, data, k);
      next = a + k;
    }
  }
  if (code == 1 && x->hasCS && x->hasIP)
    w.word32(0x03, static_cast<uint32_t>((x->CS & 0xFFFF) << 16 | (x->IP & 0xFFFF)));
  if ((code == 2 || code == 3) && x->hasEIP)
    w.word32(0x05, x->EIP);
  w.record(0x01, 0, nullptr, 0);
  return w.finish() ? 1 : 0;
}
