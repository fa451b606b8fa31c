// Intel HEX reader. Each record is decoded in place from the lines the
// shared block reader hands over (hextext.h): one table lookup per
// hexadecimal digit, one placed piece per data record (place.h).
#include <iterator>

#include "formats/hextext.h"
#include "formats/ihex.h"
#include "formats/place.h"
#include "image/hex_errno.h"

namespace {

using namespace hextext;

// The longest line that can hold a record: 255 data bytes.
constexpr size_t MAX_RECORD_CHARS = 2 * 255 + 11;
enum { MODE_NONE, MODE_SEGMENT, MODE_LINEAR };

struct reader : readState {
  int mode = MODE_NONE;
  uint64_t base = 0;

  bool onLine(const char *p, size_t n);
  bool onOverlong(const char *head, bool stray);
};

bool applyData(reader &r, uint32_t aaaa, const uint8_t *d, uint32_t n) {
  if (n == 0)
    return true;
  uint64_t first = aaaa;
  uint32_t n1 = n;
  uint64_t wrapTo = 0;
  switch (r.mode) {
  case MODE_NONE: // no extended address yet: addresses run on past 0xFFFF
    break;
  case MODE_SEGMENT: // wraps inside its 64 KiB segment
    first = r.base + aaaa;
    if (aaaa + n > 0x10000) {
      n1 = 0x10000 - aaaa;
      wrapTo = r.base;
    }
    break;
  default: // linear: carries into the next segment, wraps at 4 GiB
    first = (r.base + aaaa) & 0xFFFFFFFFull;
    if (first + n > 0x100000000ull)
      n1 = static_cast<uint32_t>(0x100000000ull - first);
    break;
  }
  if (!r.place(first, d, n1))
    return false;
  return n1 == n || r.place(wrapTo, d + n1, n - n1);
}

// ---- records ---------------------------------------------------------------
// One handler per record type, given the record's length, address field
// and data bytes. False stops reading.

bool onData(reader &r, uint32_t ll, uint32_t aaaa, const uint8_t *d) {
  return applyData(r, aaaa, d, ll);
}

bool onEndOfFile(reader &r, uint32_t, uint32_t, const uint8_t *) {
  r.complete = true; // records after it are still applied
  return true;
}

// Types 02 and 04: the base of the following data records.
bool onExtendedAddress(reader &r, uint32_t ll, const uint8_t *d, int mode) {
  if (ll != 2) {
    hex_setNumError(EREADHEX, r.line);
    return false;
  }
  const uint64_t v = static_cast<uint64_t>(d[0]) << 8 | d[1];
  r.base = mode == MODE_SEGMENT ? v << 4 : v << 16;
  r.mode = mode;
  return true;
}
bool onSegmentAddress(reader &r, uint32_t ll, uint32_t, const uint8_t *d) {
  return onExtendedAddress(r, ll, d, MODE_SEGMENT);
}
bool onLinearAddress(reader &r, uint32_t ll, uint32_t, const uint8_t *d) {
  return onExtendedAddress(r, ll, d, MODE_LINEAR);
}

bool onStartSegment(reader &r, uint32_t ll, uint32_t, const uint8_t *d) {
  if (ll != 4) {
    r.problem(EREADHEX);
    return true;
  }
  const uint64_t cs = static_cast<uint64_t>(d[0]) << 8 | d[1];
  const uint64_t ip = static_cast<uint64_t>(d[2]) << 8 | d[3];
  if (r.x->hasCS && r.x->CS != cs)
    r.problem(ECSCONFLICT);
  if (r.x->hasIP && r.x->IP != ip)
    r.problem(EIPCONFLICT);
  r.x->CS = cs;
  r.x->IP = ip;
  r.x->hasCS = r.x->hasIP = true;
  return true;
}

bool onStartLinear(reader &r, uint32_t ll, uint32_t, const uint8_t *d) {
  if (ll != 4) {
    r.problem(EREADHEX);
    return true;
  }
  const uint32_t eip = static_cast<uint32_t>(d[0]) << 24 | static_cast<uint32_t>(d[1]) << 16 |
                       static_cast<uint32_t>(d[2]) << 8 | d[3];
  if (r.x->hasEIP && r.x->EIP != eip) {
    hex_setError(EEIPCONFLICT); // its record carries no line
    r.failed();
  }
  r.x->EIP = eip;
  r.x->hasEIP = true;
  return true;
}

using recordHandler = bool (*)(reader &, uint32_t, uint32_t, const uint8_t *);
constexpr recordHandler kHandlers[] = {onData,           onEndOfFile,    onSegmentAddress,
                                       onStartSegment,   onLinearAddress, onStartLinear};

// Decodes a trimmed line of n characters into its bytes; false, with the
// line's problem listed, when it holds no well-formed record.
bool decodeLine(reader &r, const char *p, size_t n, uint8_t *b) {
  if (n < 11 || p[0] != ':') {
    r.problem(EREADHEX);
    return false;
  }
  switch (decodePairs(p + 1, n - 1, MAX_RECORD_CHARS - 1, b)) {
  case PAIRS_OK:
    break;
  case PAIRS_STRAY:
    r.problem(EBADCHAR);
    return false;
  case PAIRS_BROKEN: // too long, or white space inside it
    r.problem(EREADHEX);
    return false;
  }
  if (2 * size_t(b[0]) + 11 != n) {
    r.problem(EREADHEX);
    return false;
  }
  return true;
}

// Judges one physical line (without its line end). False stops reading.
bool reader::onLine(const char *p, size_t n) {
  if (!nextLine())
    return false;
  n = trimEnd(p, n);
  uint8_t b[MAX_RECORD_CHARS / 2 + 1];
  if (!decodeLine(*this, p, n, b))
    return true;
  const uint32_t ll = b[0];
  unsigned sum = 0;
  for (uint32_t i = 0; i < ll + 5; ++i)
    sum += b[i];
  // A record that fails its checksum is still applied; the failure
  // reaches the caller through the error list and the result.
  if (sum & 0xFF)
    badChecksum();
  const uint8_t type = b[3];
  if (type >= std::size(kHandlers)) {
    hex_setUnknownRecord(line, type);
    return false;
  }
  return kHandlers[type](*this, ll, static_cast<uint32_t>(b[1]) << 8 | b[2], b + 4);
}

// A line too long to hold any record.
bool reader::onOverlong(const char *head, bool stray) {
  if (!nextLine())
    return false;
  problem(head[0] == ':' && stray ? EBADCHAR : EREADHEX);
  return true;
}

} // namespace

bool ihex_readSpecd(ihex *x, FILE *in, const ihex_readspec *spec) {
  return readStream<MAX_RECORD_CHARS, reader>(x, in, spec, nullptr, nullptr);
}

bool ihex_read(ihex *x, FILE *in) { return ihex_readSpecd(x, in, nullptr); }

bool ihex_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                      ihex_extent *placed) {
  if (!x || !in || !placed) {
    hex_setError(ENULL);
    return false;
  }
  return readStream<MAX_RECORD_CHARS, reader>(x, in, spec, dst, placed);
}
