// Hex object, Intel HEX reader and writer.
//
// The reader pulls the stream in large blocks and decodes each record in
// place: no allocation per line, one table lookup per hexadecimal digit, one
// run store per data record. Lines longer than any valid record are judged
// while they stream past, so a multi-gigabyte line costs no memory.
// A stream read for a plain merge (ihex_readToMerge) leaves out the bytes
// that the merge would not change and remembers their addresses (a bit per
// column, or per row once a whole row is left out), so a file overlapping
// the image it joins costs memory only for what it adds.
// The writer walks the image row by row and formats records into its own
// large buffer before handing whole blocks to the stream.
#include "ihex/ihex.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <unordered_map>

#include "ihex/hex_errno.h"

// True, with ENULL recorded, when a required object is missing.
template <class T> static bool missing(const T *p) {
  if (p)
    return false;
  hex_setError(ENULL);
  return true;
}

// ---- read settings ----------------------------------------------------------

bool ihex_readspec_setStart(ihex_readspec *s, uint64_t value) {
  if (missing(s))
    return false;
  if (s->hasEnd && value > s->end) {
    hex_setError(EBADADDR);
    return false;
  }
  if (s->offset < 0 && value < static_cast<uint64_t>(-static_cast<int64_t>(s->offset))) {
    hex_setError(EBELOWZERO);
    return false;
  }
  s->start = value;
  s->hasStart = true;
  return true;
}

bool ihex_readspec_setEnd(ihex_readspec *s, uint64_t value) {
  if (missing(s))
    return false;
  if (s->hasStart && value < s->start) {
    hex_setError(EBADADDR);
    return false;
  }
  s->end = value;
  s->hasEnd = true;
  return true;
}

bool ihex_readspec_setOffset(ihex_readspec *s, int32_t value) {
  if (missing(s))
    return false;
  if (s->hasStart && value < 0 && s->start < static_cast<uint64_t>(-static_cast<int64_t>(value))) {
    hex_setError(EBELOWZERO);
    return false;
  }
  s->offset = value;
  return true;
}

#define SPEC_GET(type, name, expr, dflt)                                                           \
  type name(const ihex_readspec *s) {                                                              \
    if (missing(s))                                                                                \
      return dflt;                                                                                 \
    return expr;                                                                                   \
  }
SPEC_GET(bool, ihex_readspec_hasStart, s->hasStart, false)
SPEC_GET(uint64_t, ihex_readspec_getStart, s->hasStart ? s->start : 0, 0)
SPEC_GET(bool, ihex_readspec_hasEnd, s->hasEnd, false)
SPEC_GET(uint64_t, ihex_readspec_getEnd, s->hasEnd ? s->end : 0, 0)
SPEC_GET(int32_t, ihex_readspec_getOffset, s->offset, 0)
SPEC_GET(bool, ihex_readspec_willPreserveData, s->willPreserveData, false)
SPEC_GET(bool, ihex_readspec_canBeClobbered, s->canBeClobbered, true)
#undef SPEC_GET

void ihex_readspec_setPreserveData(ihex_readspec *s, bool on) {
  if (missing(s))
    return;
  s->willPreserveData = on;
}

void ihex_readspec_setCanBeClobbered(ihex_readspec *s, bool on) {
  if (missing(s))
    return;
  s->canBeClobbered = on;
}

void ihex_readspec_setNote(ihex_readspec *s, const void *note) {
  if (missing(s))
    return;
  s->note = note;
  s->hasNote = true;
}

// ---- hex object -------------------------------------------------------------

ihex *ihex_create() {
  ihex *x = new (std::nothrow) ihex;
  if (!x) {
    hex_setError(EMEMORY);
    return nullptr;
  }
  x->image = hex_create();
  if (!x->image) {
    delete x;
    return nullptr;
  }
  return x;
}

void ihex_destroy(ihex *x) {
  if (!x)
    return;
  hex_destroy(x->image);
  delete x;
}

hexdata *ihex_getImage(ihex *x) {
  if (missing(x))
    return nullptr;
  return x->image;
}

bool ihex_setMaxLength(ihex *x, uint32_t len) {
  if (missing(x))
    return false;
  if (len == 0) {
    hex_setError(EARG);
    return false;
  }
  x->maxLength = len;
  return true;
}

uint32_t ihex_getMaxLength(const ihex *x) {
  if (missing(x))
    return 0;
  return x->maxLength;
}

bool ihex_addBreak(ihex *x, uint64_t addr) {
  if (missing(x))
    return false;
  if (addr > 0xFFFFFFFFFFFFFFFEull) {
    hex_setError(EARG);
    return false;
  }
  x->breaks.insert(addr);
  return true;
}

bool ihex_hasSSA(const ihex *x) {
  if (missing(x))
    return false;
  return x->hasCS && x->hasIP;
}

uint32_t ihex_getSSA(const ihex *x) {
  if (!ihex_hasSSA(x))
    return 0;
  return static_cast<uint32_t>((x->CS << 16) + x->IP);
}

bool ihex_setSSA(ihex *x, uint64_t cs, uint64_t ip) {
  if (missing(x))
    return false;
  bool ok = true;
  if (cs > 0xFFFF) {
    hex_setError(EARG);
    cs &= 0xFFFF;
    ok = false;
  }
  if (ip > 0xFFFF) {
    hex_setError(EARG);
    ip &= 0xFFFF;
    ok = false;
  }
  x->CS = cs;
  x->IP = ip;
  x->hasCS = x->hasIP = true;
  return ok;
}

void ihex_clearSSA(ihex *x) {
  if (missing(x))
    return;
  x->CS = x->IP = 0;
  x->hasCS = x->hasIP = false;
}

bool ihex_hasSLA(const ihex *x) {
  if (missing(x))
    return false;
  return x->hasEIP;
}

uint32_t ihex_getSLA(const ihex *x) { return ihex_hasSLA(x) ? x->EIP : 0; }

void ihex_setSLA(ihex *x, uint32_t eip) {
  if (missing(x))
    return;
  x->EIP = eip;
  x->hasEIP = true;
}

void ihex_clearSLA(ihex *x) {
  if (missing(x))
    return;
  x->EIP = 0;
  x->hasEIP = false;
}

bool ihex_merge(ihex *dst, ihex *src, bool force) {
  if (!dst || !src) {
    hex_setError(ENULL);
    return false;
  }
  bool ok = true;
  if (src->hasCS && src->hasIP) {
    if (dst->hasCS && dst->hasIP && !force) {
      if (dst->CS != src->CS || dst->IP != src->IP) {
        hex_setNumError(EIPCONFLICT, 0);
        ok = false;
      }
    } else if (!ihex_setSSA(dst, src->CS, src->IP)) {
      ok = false;
    }
  }
  if (src->hasEIP) {
    if (dst->hasEIP && !force && dst->EIP != src->EIP) {
      hex_setError(EEIPCONFLICT);
      hex_mergeFrom(dst->image, src->image, force);
      return false;
    }
    ihex_setSLA(dst, src->EIP);
  }
  if (!hex_mergeFrom(dst->image, src->image, force))
    ok = false;
  return ok;
}

// ---- reader -----------------------------------------------------------------

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

// The addresses a stream placed whose bytes were left out of its image
// because the image it is about to be merged into holds them already: a bit
// per column for rows left out in part, and a bit per row (in groups of 64
// rows) once every column of a row was left out, so a long overlap costs a
// few bytes per row.
using rowBits = std::array<uint64_t, 4>;
constexpr rowBits ALL_COLUMNS = {~0ull, ~0ull, ~0ull, ~0ull};

struct dropped {
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

struct reader {
  ihex *x;
  hexdata *img;
  const ihex_readspec *spec;
  bool force;
  dropped *drop; // null: every byte is kept
  bool ok = true;
  bool broken = false;        // a problem other than a bad checksum was listed
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

// Stores a stretch into the stream's image as a plain store with its note.
bool keep(reader &r, uint64_t ia, const uint8_t *d, uint64_t n) {
  bool all = hex_storeBytes(r.img, ia, d, n) == n;
  if (r.spec && r.spec->hasNote)
    hex_setNote(r.img, ia, ia + n - 1, r.spec->note);
  return all;
}

// Stores a run of image addresses for a plain merge into r.drop->into. A
// byte is left out when this stream has not placed its address yet and the
// merge would change nothing there (an equal byte, present and not
// preserved). A later byte at a left-out address is judged against the
// equal byte the image holds, as the stream's own image would have judged
// it. Kept stretches go in one run each, so every refusal is recorded in
// address order, as with no byte left out. True when no byte was refused.
bool storeDropping(reader &r, uint64_t ia, const uint8_t *d, uint64_t n) {
  dropped &k = *r.drop;
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
        if (own && hex_rowBit(own->present, c))
          continue;
        if (hex_rowBit(into->present, c) && !hex_rowBit(into->preserved, c) && into->data[c] == v[j])
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

// Stores one piece of a data record whose file addresses are contiguous.
// False: the offset would place data below address 0 (reading stops).
bool storePiece(reader &r, uint64_t fa, const uint8_t *d, uint64_t n) {
  const ihex_readspec *s = r.spec;
  int64_t offset = 0;
  if (s) {
    if (s->hasStart && fa < s->start) {
      uint64_t skip = s->start - fa;
      if (skip >= n)
        return true;
      fa += skip;
      d += skip;
      n -= skip;
    }
    if (s->hasEnd && fa + n - 1 > s->end) {
      if (fa > s->end)
        return true;
      n = s->end - fa + 1;
    }
    offset = s->offset;
    // Deliberately every piece, not only a record's first byte: the bytes a
    // wrapping record brings back below address 0 would land at the top of
    // the 64-bit space, which no output variant can hold.
    if (offset < 0 && fa < static_cast<uint64_t>(-offset)) {
      hex_setError(EBELOWZERO);
      return false;
    }
  }
  uint64_t ia = fa + static_cast<uint64_t>(offset);
  if (r.drop) {
    if (!storeDropping(r, ia, d, n))
      failed(r);
    return true;
  }
  if (hex_putBytes(r.img, ia, d, n, r.force) != n)
    failed(r);
  if (s) {
    if (s->willPreserveData)
      hex_preserveData(r.img, ia, ia + n - 1, 1);
    if (s->hasNote)
      hex_setNote(r.img, ia, ia + n - 1, s->note);
  }
  return true;
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
  if (!storePiece(r, first, d, n1))
    return false;
  if (n1 < n)
    return storePiece(r, wrapTo, d + n1, n - n1);
  return true;
}

// Judges one physical line (without its line end). False stops reading.
bool readLine(reader &r, const char *p, size_t n) {
  if (!mayGoOn(r))
    return false;
  ++r.line;
  while (n > 0 && isWs(p[n - 1]))
    --n;
  if (n < 11 || p[0] != ':') {
    problem(r, EREADHEX);
    return true;
  }
  // Decode digit pairs; anything that is not a digit sends the line to the
  // slow path that tells a stray character from embedded white space.
  uint8_t b[MAX_RECORD_CHARS / 2 + 1];
  const size_t digits = n - 1;
  bool clean = digits <= MAX_RECORD_CHARS - 1;
  if (clean) {
    const char *q = p + 1;
    for (size_t k = 0; k + 1 < digits; k += 2) {
      uint8_t h = hx(q[k]), l = hx(q[k + 1]);
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
      uint8_t t = hx(p[i]);
      if (t & HX_WS)
        break;
      if (t & HX_BAD) {
        problem(r, EBADCHAR);
        return true;
      }
    }
    // Only digits up to the first white space: the record is still broken
    // (too long, or white space inside it).
    problem(r, EREADHEX);
    return true;
  }
  const uint32_t ll = b[0];
  if (2 * ll + 11 != n) {
    problem(r, EREADHEX);
    return true;
  }
  unsigned sum = 0;
  for (uint32_t i = 0; i < ll + 5; ++i)
    sum += b[i];
  if (sum & 0xFF) {
    // A record that fails its checksum is still applied; the failure
    // reaches the caller through the error list and the result.
    hex_setNumError(ECHECKSUM, r.line);
    r.ok = false;
  }
  const uint32_t aaaa = static_cast<uint32_t>(b[1]) << 8 | b[2];
  const uint8_t type = b[3];
  const uint8_t *d = b + 4;
  switch (type) {
  case 0x00:
    return applyData(r, aaaa, d, ll);
  case 0x01: // records after the end-of-file record are still applied
    r.eofSeen = true;
    return true;
  case 0x02:
  case 0x04:
    if (ll != 2) {
      hex_setNumError(EREADHEX, r.line);
      return false;
    }
    if (type == 0x02) {
      r.base = (static_cast<uint64_t>(d[0]) << 8 | d[1]) << 4;
      r.mode = MODE_SEGMENT;
    } else {
      r.base = (static_cast<uint64_t>(d[0]) << 8 | d[1]) << 16;
      r.mode = MODE_LINEAR;
    }
    return true;
  case 0x03: {
    if (ll != 4) {
      problem(r, EREADHEX);
      return true;
    }
    uint64_t cs = static_cast<uint64_t>(d[0]) << 8 | d[1];
    uint64_t ip = static_cast<uint64_t>(d[2]) << 8 | d[3];
    if (r.x->hasCS && r.x->CS != cs) {
      problem(r, ECSCONFLICT);
    }
    if (r.x->hasIP && r.x->IP != ip) {
      problem(r, EIPCONFLICT);
    }
    r.x->CS = cs;
    r.x->IP = ip;
    r.x->hasCS = r.x->hasIP = true;
    return true;
  }
  case 0x05: {
    if (ll != 4) {
      problem(r, EREADHEX);
      return true;
    }
    uint32_t eip = static_cast<uint32_t>(d[0]) << 24 | static_cast<uint32_t>(d[1]) << 16 |
                   static_cast<uint32_t>(d[2]) << 8 | d[3];
    if (r.x->hasEIP && r.x->EIP != eip) {
      hex_setError(EEIPCONFLICT); // its record carries no line
      failed(r);
    }
    r.x->EIP = eip;
    r.x->hasEIP = true;
    return true;
  }
  default:
    hex_setUnknownRecord(r.line, type);
    return false;
  }
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

bool readStream(ihex *x, FILE *in, const ihex_readspec *spec, dropped *drop) {
  reader r{x, x->image, spec, spec && !spec->canBeClobbered, drop};
  x->CS = x->IP = 0;
  x->hasCS = x->hasIP = false;
  x->EIP = 0;
  x->hasEIP = false;
  hex_clear(x->image);

  std::unique_ptr<char[]> buf(new (std::nothrow) char[READ_BLOCK]);
  if (!buf) {
    hex_setError(EMEMORY);
    return false;
  }
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

} // namespace

bool ihex_readSpecd(ihex *x, FILE *in, const ihex_readspec *spec) {
  if (!x || !in) {
    hex_setError(ENULL);
    return false;
  }
  return readStream(x, in, spec, nullptr);
}

bool ihex_read(ihex *x, FILE *in) { return ihex_readSpecd(x, in, nullptr); }

bool ihex_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                      ihex_extent *placed) {
  if (!x || !in || !placed) {
    hex_setError(ENULL);
    return false;
  }
  // A forced merge changes equal bytes too (their mark and owner), and a
  // preserving read refuses a second byte at one address even when equal:
  // then every byte is kept.
  const bool plain = !spec || (spec->canBeClobbered && !spec->willPreserveData);
  dropped dropping;
  dropping.into = dst;
  dropped *drop = dst && dst != x->image && plain ? &dropping : nullptr;
  const bool ok = readStream(x, in, spec, drop);
  *placed = ihex_extent{};
  const hexdata *img = x->image;
  if (hex_getByteCount(img) > 0)
    *placed = {hex_getByteCount(img), hex_getLoAddr(img), hex_getHiAddr(img)};
  if (drop && drop->count > 0) {
    placed->lo = placed->count == 0 ? drop->lo : std::min(placed->lo, drop->lo);
    placed->hi = placed->count == 0 ? drop->hi : std::max(placed->hi, drop->hi);
    placed->count += drop->count;
  }
  return ok;
}

// ---- writer -----------------------------------------------------------------

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

} // namespace

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

int ihex_write(const ihex *x, FILE *out, unsigned code) {
  if (!x || !out) {
    hex_setError(ENULL);
    return 0;
  }
  if (!checkForWrite(x, code))
    return 0;
  std::unique_ptr<char[]> buf(new (std::nothrow) char[WRITE_BLOCK]);
  if (!buf) {
    hex_setError(EMEMORY);
    return 0;
  }
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
    while (next <= hi && hex_nextPresent(img, next, &a)) {
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
        const uint32_t col = static_cast<uint32_t>(at & 0xFF);
        const uint32_t m = static_cast<uint32_t>(std::min<uint64_t>(limit - k, 256 - col));
        const uint32_t j = hex_rowRun(row, col, m);
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
