// Intel HEX reader. The stream is pulled in large blocks and each record
// decoded in place: no allocation per line, one table lookup per
// hexadecimal digit, one placed piece per data record (place.h). Lines
// longer than any valid record are judged while they stream past, so a
// multi-gigabyte line costs no memory.
#include <algorithm>
#include <iterator>
#include <cstring>
#include <memory>
#include <new>

#include "formats/ihex.h"
#include "formats/place.h"
#include "image/hex_errno.h"

namespace {

constexpr uint8_t HX_BAD = 0x80; // not a hexadecimal digit
constexpr uint8_t HX_WS = 0x40;  // white space (with HX_BAD)

struct hexDigits {
  uint8_t v[256];
  constexpr hexDigits() : v() {
    for (int c = 0; c < 256; ++c)
      v[c] = HX_BAD;
    for (int c = '0'; c <= '9'; ++c)
      v[c] = static_cast<uint8_t>(c - '0');
    for (int c = 'A'; c <= 'F'; ++c)
      v[c] = static_cast<uint8_t>(c - 'A' + 10);
    for (int c = 'a'; c <= 'f'; ++c)
      v[c] = static_cast<uint8_t>(c - 'a' + 10);
    for (char c : {'\t', '\n', '\v', '\f', '\r', ' '})
      v[static_cast<uint8_t>(c)] = HX_BAD | HX_WS;
  }
};
constexpr hexDigits HX;

inline uint8_t hx(char c) { return HX.v[static_cast<uint8_t>(c)]; }
inline bool isWs(char c) { return (hx(c) & HX_WS) != 0; }

// The longest line that can hold a record: 255 data bytes.
constexpr size_t MAX_RECORD_CHARS = 2 * 255 + 11;
// A line without a line end that grows past this is judged while streaming.
constexpr size_t LONG_LINE = 4096;
constexpr size_t READ_BLOCK = size_t(1) << 18;

enum { MODE_NONE, MODE_SEGMENT, MODE_LINEAR };

struct reader {
  ihex *x;
  place_sink *sink;
  bool ok = true;
  bool broken = false; // a problem other than a bad checksum was listed
  bool eofSeen = false;
  uint32_t line = 0;
  int mode = MODE_NONE;
  uint64_t base = 0;
};

// The error list keeps a bounded number of records (hex_errno.h). Once it
// is full, a stream that has already failed is not read further (more
// records could not change that, and a 2 GB file of blank lines would be
// read to its end for nothing); a stream whose only problems are bad
// checksums is read to its end, its further checksum failures only counted.
// The stream fails for a problem other than a bad checksum.
void failed(reader &r) {
  r.ok = false;
  r.broken = true;
}

// Lists a problem of the current line that makes the stream fail.
void problem(reader &r, uint32_t code) {
  hex_setNumError(code, r.line);
  failed(r);
}

// False when the listing bound is reached by a stream that has failed.
bool mayGoOn(reader &r) {
  return hex_errorCount() < HEX_ERRORS_KEPT || !r.broken;
}

// Places one piece whose file addresses are contiguous; false when reading
// must stop.
bool placePiece(reader &r, uint64_t fa, const uint8_t *d, uint64_t n) {
  switch (place_piece(r.sink, fa, d, n)) {
  case PLACE_OK:
    return true;
  case PLACE_REFUSED:
    failed(r);
    return true;
  case PLACE_STOP:
    break;
  }
  return false;
}

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
  if (!placePiece(r, first, d, n1))
    return false;
  return n1 == n || placePiece(r, wrapTo, d + n1, n - n1);
}

// ---- records ---------------------------------------------------------------
// One handler per record type, given the record's length, address field
// and data bytes. False stops reading.

bool onData(reader &r, uint32_t ll, uint32_t aaaa, const uint8_t *d) {
  return applyData(r, aaaa, d, ll);
}

bool onEndOfFile(reader &r, uint32_t, uint32_t, const uint8_t *) {
  r.eofSeen = true; // records after it are still applied
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
    problem(r, EREADHEX);
    return true;
  }
  const uint64_t cs = static_cast<uint64_t>(d[0]) << 8 | d[1];
  const uint64_t ip = static_cast<uint64_t>(d[2]) << 8 | d[3];
  if (r.x->hasCS && r.x->CS != cs)
    problem(r, ECSCONFLICT);
  if (r.x->hasIP && r.x->IP != ip)
    problem(r, EIPCONFLICT);
  r.x->CS = cs;
  r.x->IP = ip;
  r.x->hasCS = r.x->hasIP = true;
  return true;
}

bool onStartLinear(reader &r, uint32_t ll, uint32_t, const uint8_t *d) {
  if (ll != 4) {
    problem(r, EREADHEX);
    return true;
  }
  const uint32_t eip = static_cast<uint32_t>(d[0]) << 24 | static_cast<uint32_t>(d[1]) << 16 |
                       static_cast<uint32_t>(d[2]) << 8 | d[3];
  if (r.x->hasEIP && r.x->EIP != eip) {
    hex_setError(EEIPCONFLICT); // its record carries no line
    failed(r);
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
    problem(r, EREADHEX);
    return false;
  }
  // Digit pairs; anything that is not a digit sends the line to the slow
  // path that tells a stray character from embedded white space.
  const size_t digits = n - 1;
  bool clean = digits <= MAX_RECORD_CHARS - 1;
  if (clean) {
    const char *q = p + 1;
    for (size_t k = 0; k + 1 < digits; k += 2) {
      const uint8_t h = hx(q[k]), l = hx(q[k + 1]);
      if ((h | l) & HX_BAD) {
        clean = false;
        break;
      }
      b[k / 2] = static_cast<uint8_t>(h << 4 | l);
    }
    if (clean && (digits & 1) && (hx(p[n - 1]) & HX_BAD))
      clean = false;
  }
  if (!clean) {
    for (size_t i = 1; i < n; ++i) {
      const uint8_t t = hx(p[i]);
      if (t & HX_WS)
        break;
      if (t & HX_BAD) {
        problem(r, EBADCHAR);
        return false;
      }
    }
    // Only digits up to the first white space: the record is still broken
    // (too long, or white space inside it).
    problem(r, EREADHEX);
    return false;
  }
  if (2 * size_t(b[0]) + 11 != n) {
    problem(r, EREADHEX);
    return false;
  }
  return true;
}

// Judges one physical line (without its line end). False stops reading.
bool readLine(reader &r, const char *p, size_t n) {
  if (!mayGoOn(r))
    return false;
  ++r.line;
  while (n > 0 && isWs(p[n - 1]))
    --n;
  uint8_t b[MAX_RECORD_CHARS / 2 + 1];
  if (!decodeLine(r, p, n, b))
    return true;
  const uint32_t ll = b[0];
  unsigned sum = 0;
  for (uint32_t i = 0; i < ll + 5; ++i)
    sum += b[i];
  if (sum & 0xFF) {
    // A record that fails its checksum is still applied; the failure
    // reaches the caller through the error list and the result.
    hex_setNumError(ECHECKSUM, r.line);
    r.ok = false;
  }
  const uint8_t type = b[3];
  if (type >= std::size(kHandlers)) {
    hex_setUnknownRecord(r.line, type);
    return false;
  }
  return kHandlers[type](r, ll, static_cast<uint32_t>(b[1]) << 8 | b[2], b + 4);
}

// A line too long to hold a record, judged as it streams past: only its
// first character, whether a stray character comes before the first white
// space, and where its last non-blank character lies matter. Its head is
// kept in case the rest turns out to be trailing white space.
struct longLine {
  char head[MAX_RECORD_CHARS];
  uint64_t len = 0;
  uint64_t trimmed = 0; // length up to the last non-blank character
  bool scanning = true;
  bool bad = false;

  void feed(const char *p, size_t n) {
    for (size_t i = 0; i < n; ++i, ++len) {
      const char c = p[i];
      if (len < sizeof head)
        head[len] = c;
      const uint8_t t = hx(c);
      if (!(t & HX_WS))
        trimmed = len + 1;
      if (len > 0 && scanning && (t & HX_BAD)) {
        scanning = false;
        bad = !(t & HX_WS);
      }
    }
  }

  bool finish(reader &r) {
    if (trimmed <= sizeof head)
      return readLine(r, head, static_cast<size_t>(trimmed));
    if (!mayGoOn(r))
      return false;
    ++r.line;
    problem(r, head[0] == ':' && bad ? EBADCHAR : EREADHEX);
    return true;
  }
};

// Reads the stream line by line in large blocks.
bool readBlocks(reader &r, FILE *in) {

  std::unique_ptr<char[]> buf(new char[READ_BLOCK]);
  char *const B = buf.get();
  size_t beg = 0, fill = 0;
  bool atEnd = false;
  for (;;) {
    if (const char *nl = static_cast<const char *>(std::memchr(B + beg, '\n', fill - beg))) {
      if (!readLine(r, B + beg, static_cast<size_t>(nl - (B + beg))))
        return false;
      beg = static_cast<size_t>(nl - B) + 1;
      continue;
    }
    if (atEnd) {
      if (fill > beg && !readLine(r, B + beg, fill - beg))
        return false;
      break;
    }
    if (fill - beg > LONG_LINE) {
      // Stream the rest of this line through the long-line judge.
      longLine ll;
      ll.feed(B + beg, fill - beg);
      beg = fill = 0;
      for (;;) {
        fill = std::fread(B, 1, READ_BLOCK, in);
        if (fill == 0) {
          atEnd = true;
          break;
        }
        if (const char *nl = static_cast<const char *>(std::memchr(B, '\n', fill))) {
          ll.feed(B, static_cast<size_t>(nl - B));
          beg = static_cast<size_t>(nl - B) + 1;
          break;
        }
        ll.feed(B, fill);
      }
      if (!ll.finish(r))
        return false;
      if (atEnd)
        break;
      continue;
    }
    std::memmove(B, B + beg, fill - beg);
    fill -= beg;
    beg = 0;
    size_t got = std::fread(B + fill, 1, READ_BLOCK - fill, in);
    if (got == 0)
      atEnd = true;
    fill += got;
  }
  // A stream cut short by a read error usually lacks its end-of-file
  // record too: the read error is what the user must hear about.
  if (std::ferror(in)) {
    hex_setError(EIO);
    return false;
  }
  if (!r.eofSeen) {
    hex_setError(ENOEOF);
    return false;
  }
  return r.ok;
}

bool readStream(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *mergeInto,
                ihex_extent *placed) {
  x->CS = x->IP = 0;
  x->hasCS = x->hasIP = false;
  x->EIP = 0;
  x->hasEIP = false;
  hex_clear(x->image);
  place_sink sink(x->image, spec, mergeInto);
  reader r{x, &sink};
  const bool ok = readBlocks(r, in);
  place_finish(&sink);
  if (placed)
    *placed = place_extent(&sink);
  return ok;
}

} // namespace

bool ihex_readSpecd(ihex *x, FILE *in, const ihex_readspec *spec) {
  if (!x || !in) {
    hex_setError(ENULL);
    return false;
  }
  return readStream(x, in, spec, nullptr, nullptr);
}

bool ihex_read(ihex *x, FILE *in) { return ihex_readSpecd(x, in, nullptr); }

bool ihex_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                      ihex_extent *placed) {
  if (!x || !in || !placed) {
    hex_setError(ENULL);
    return false;
  }
  return readStream(x, in, spec, dst, placed);
}
