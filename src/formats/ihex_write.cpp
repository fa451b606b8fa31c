// Intel HEX writer: walks the image row by row and formats records into
// its own large buffer before handing whole blocks to the stream.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

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

constexpr uint64_t FORMAT_TOP[4] = {0xFFFFull, 0xFFFFFull, 0xFFFFFFFFull, 0xFFFFFFFFull};

struct hexPairs {
  char v[512];
  constexpr hexPairs() : v() {
    const char *d = "0123456789ABCDEF";
    for (int i = 0; i < 256; ++i) {
      v[2 * i] = d[i >> 4];
      v[2 * i + 1] = d[i & 15];
    }
  }
};
constexpr hexPairs HP;

constexpr size_t WRITE_BLOCK = size_t(1) << 18;

struct writer {
  FILE *out;
  char *buf;
  size_t used = 0;
  bool failed = false;

  void flush() {
    if (used && !failed && std::fwrite(buf, 1, used, out) != used)
      failed = true;
    used = 0;
  }
  inline char *put2(char *p, uint8_t b) {
    std::memcpy(p, HP.v + 2 * b, 2);
    return p + 2;
  }
  void record(uint8_t type, uint32_t addr, const uint8_t *d, uint32_t n) {
    if (WRITE_BLOCK - used < 2 * n + 16)
      flush();
    char *p = buf + used;
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
    used = static_cast<size_t>(p - buf);
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
  std::unique_ptr<char[]> buf(new char[WRITE_BLOCK]);
  writer w{out, buf.get()};
  // Records carry at most 255 bytes; a zero length is never configured
  // (ihex_setMaxLength refuses it) and is taken as one byte per record.
  const uint32_t maxLen = std::clamp<uint32_t>(x->maxLength, 1, 255);
  const hexdata *img = x->image;
  if (hex_getByteCount(img) > 0) {
    const uint64_t hi = hex_getHiAddr(img);
    uint64_t base = 0, next = hex_getLoAddr(img), a = 0;
    bool extended = false;
    uint8_t data[256];
    // The row the last record ended in: the next record usually starts there.
    const hex_row *last = nullptr;
    uint64_t lastRow = 0;
    auto nextByte = [&](uint64_t from, uint64_t *found) {
      if (last && hex_rowOf(from) == lastRow) {
        const unsigned c = plane_next(last->present, unsigned(from & 0xFF), 255, true);
        if (c <= 255) {
          *found = (lastRow << 8) + c;
          return true;
        }
      }
      return hex_nextPresent(img, from, found);
    };
    while (next <= hi && nextByte(next, &a)) {
      if (a - base >= 0x10000 || (code == 3 && !extended)) {
        base = a & ~0xFFFFull;
        if (code == 1)
          w.word16(0x02, static_cast<uint32_t>(base >> 4));
        else
          w.word16(0x04, static_cast<uint32_t>(base >> 16));
        extended = true;
      }
      const uint32_t offset = static_cast<uint32_t>(a - base);
      uint64_t limit = std::min<uint64_t>(maxLen, 0x10000 - offset);
      auto br = x->breaks.upper_bound(a); // the byte at a break starts a record
      if (br != x->breaks.end())
        limit = std::min<uint64_t>(limit, *br - a);
      uint32_t k = 0;
      while (k < limit) {
        const uint64_t at = a + k;
        const hex_row *row = hex_getRow(img, hex_rowOf(at));
        if (!row)
          break;
        last = row;
        lastRow = hex_rowOf(at);
        const uint32_t col = static_cast<uint32_t>(at & 0xFF);
        const uint32_t m = static_cast<uint32_t>(std::min<uint64_t>(limit - k, 256 - col));
        const uint32_t j = plane_next(row->present, col, col + m - 1, false) - col;
        std::memcpy(data + k, row->data + col, j);
        k += j;
        if (j < m)
          break;
      }
      w.record(0x00, offset, data, k);
      next = a + k;
    }
  }
  if (code == 1 && x->hasCS && x->hasIP)
    w.word32(0x03, static_cast<uint32_t>((x->CS & 0xFFFF) << 16 | (x->IP & 0xFFFF)));
  if ((code == 2 || code == 3) && x->hasEIP)
    w.word32(0x05, x->EIP);
  w.record(0x01, 0, nullptr, 0);
  w.flush();
  // A full disk often shows only when the stream's own buffer is flushed.
  if (w.failed || std::fflush(out) != 0 || std::ferror(out)) {
    hex_setError(EIO);
    return 0;
  }
  return 1;
}
