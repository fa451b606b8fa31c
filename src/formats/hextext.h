// Insides shared by the codecs of line-oriented hexadecimal text (Intel
// HEX, S-records); no codec's interface names them.
//
// Reading: the stream is pulled in large blocks and handed to the codec's
// reader line by line, in place, with no allocation per line; lines longer
// than any record are judged while they stream past, so a multi-gigabyte
// line costs no memory. Writing: records are formatted into one large
// buffer that goes to the stream a block at a time, and the image is walked
// as runs of present bytes, row by row.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "formats/place.h"
#include "image/hex_errno.h"
#include "image/hexobject.h"

namespace hextext {

// ---- hexadecimal digits in ---------------------------------------------------

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
inline constexpr hexDigits HX;

inline uint8_t hx(char c) { return HX.v[static_cast<uint8_t>(c)]; }
inline bool isWs(char c) { return (hx(c) & HX_WS) != 0; }
// The length of the n characters at p without their trailing white space.
inline size_t trimEnd(const char *p, size_t n) {
  while (n > 0 && isWs(p[n - 1]))
    --n;
  return n;
}

enum pairs { PAIRS_OK, PAIRS_STRAY, PAIRS_BROKEN };

// Decodes the n digits at q into n / 2 bytes at b. PAIRS_STRAY when a
// character that is neither a digit nor white space comes before the first
// white space; PAIRS_BROKEN for an odd count, more than maxDigits, or white
// space inside.
inline pairs decodePairs(const char *q, size_t n, size_t maxDigits, uint8_t *b) {
  if (n <= maxDigits && n % 2 == 0) {
    size_t k = 0;
    for (; k < n; k += 2) {
      const uint8_t h = hx(q[k]), l = hx(q[k + 1]);
      if ((h | l) & HX_BAD)
        break;
      b[k / 2] = static_cast<uint8_t>(h << 4 | l);
    }
    if (k == n)
      return PAIRS_OK;
  }
  for (size_t i = 0; i < n; ++i) {
    const uint8_t t = hx(q[i]);
    if (t & HX_WS)
      break;
    if (t & HX_BAD)
      return PAIRS_STRAY;
  }
  return PAIRS_BROKEN;
}

// ---- the reading state every codec keeps -------------------------------------

struct readState {
  ihex *x;
  place_sink *sink;
  bool ok = true;
  bool broken = false; // a problem other than a bad checksum was listed
  bool complete = false; // the stream holds what a whole file must
  uint32_t line = 0;

  // The error list keeps a bounded number of records (hex_errno.h). Once
  // it is full, a stream that has already failed is not read further (more
  // records could not change that, and a 2 GB file of blank lines would be
  // read to its end for nothing); a stream whose only problems are bad
  // checksums is read to its end, its further checksum failures only
  // counted. The stream fails for a problem other than a bad checksum.
  void failed() {
    ok = false;
    broken = true;
  }
  // Lists a problem of the current line that makes the stream fail.
  void problem(uint32_t code) {
    hex_setNumError(code, line);
    failed();
  }
  void badChecksum() {
    hex_setNumError(ECHECKSUM, line);
    ok = false;
  }
  // False when the listing bound is reached by a stream that has failed.
  bool mayGoOn() const { return hex_errorCount() < HEX_ERRORS_KEPT || !broken; }
  // Counts the next line; false when reading must stop before it.
  bool nextLine() {
    if (!mayGoOn())
      return false;
    ++line;
    return true;
  }

  // Places one piece whose file addresses are contiguous; false when
  // reading must stop.
  bool place(uint64_t fa, const uint8_t *d, uint64_t n) {
    switch (place_piece(sink, fa, d, n)) {
    case PLACE_OK:
      return true;
    case PLACE_REFUSED:
      failed();
      return true;
    case PLACE_STOP:
      break;
    }
    return false;
  }
};

// ---- lines -------------------------------------------------------------------

// A line without a line end that grows past this is judged while streaming.
constexpr size_t LONG_LINE = 4096;
constexpr size_t READ_BLOCK = size_t(1) << 18;

// A line longer than HEAD characters (the longest record), judged as it
// streams past: only its head, whether a stray character comes before the
// first white space after its first character, and where its last
// non-blank character lies matter. The head is kept in case the rest turns
// out to be trailing white space.
template <size_t HEAD> struct longLine {
  char head[HEAD];
  uint64_t len = 0;
  uint64_t trimmed = 0; // length up to the last non-blank character
  bool scanning = true;
  bool stray = false;

  void feed(const char *p, size_t n) {
    for (size_t i = 0; i < n; ++i, ++len) {
      const char c = p[i];
      if (len < HEAD)
        head[len] = c;
      const uint8_t t = hx(c);
      if (!(t & HX_WS))
        trimmed = len + 1;
      if (len > 0 && scanning && (t & HX_BAD)) {
        scanning = false;
        stray = !(t & HX_WS);
      }
    }
  }
};

// Hands each physical line of the stream (without its line end) to
// r.onLine(p, n), and a line longer than HEAD characters without its
// trailing white space to r.onOverlong(head, stray); either returns false
// to stop.
// False when the reader stopped.
template <size_t HEAD, class Reader> bool eachLine(FILE *in, Reader &r) {
  std::unique_ptr<char[]> buf(new char[READ_BLOCK]);
  char *const B = buf.get();
  size_t beg = 0, fill = 0;
  bool atEnd = false;
  for (;;) {
    if (const char *nl = static_cast<const char *>(std::memchr(B + beg, '\n', fill - beg))) {
      if (!r.onLine(B + beg, static_cast<size_t>(nl - (B + beg))))
        return false;
      beg = static_cast<size_t>(nl - B) + 1;
      continue;
    }
    if (atEnd)
      return fill == beg || r.onLine(B + beg, fill - beg);
    if (fill - beg > LONG_LINE) {
      // Stream the rest of this line through the long-line judge.
      longLine<HEAD> ll;
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
      const bool goOn = ll.trimmed <= HEAD ? r.onLine(ll.head, static_cast<size_t>(ll.trimmed))
                                           : r.onOverlong(ll.head, ll.stray);
      if (!goOn)
        return false;
      if (atEnd)
        return true;
      continue;
    }
    std::memmove(B, B + beg, fill - beg);
    fill -= beg;
    beg = 0;
    const size_t got = std::fread(B + fill, 1, READ_BLOCK - fill, in);
    if (got == 0)
      atEnd = true;
    fill += got;
  }
}

// Reads a whole stream into x (place_read) with a Reader built on
// readState. True when it was read without any recorded problem; a stream
// that the Reader found incomplete fails with ENOEOF.
template <size_t HEAD, class Reader>
bool readStream(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *mergeInto,
                ihex_extent *placed) {
  return place_read(x, in, spec, mergeInto, placed, [&](place_sink &sink) {
    Reader r{{x, &sink}};
    bool ok = eachLine<HEAD>(in, r);
    // A stream cut short by a read error is usually incomplete too: the
    // read error is what the user must hear about.
    if (ok && std::ferror(in)) {
      hex_setError(EIO);
      ok = false;
    } else if (ok && !r.complete) {
      hex_setError(ENOEOF);
      ok = false;
    }
    return ok && r.ok;
  });
}

// ---- writing -----------------------------------------------------------------

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
inline constexpr hexPairs HP;

inline char *put2(char *p, uint8_t b) {
  std::memcpy(p, HP.v + 2 * b, 2);
  return p + 2;
}

constexpr size_t WRITE_BLOCK = size_t(1) << 18;

// The writer's buffer: a record is formatted at room(most) and handed back
// with done(end).
struct blockOut {
  FILE *out;
  std::unique_ptr<char[]> buf{new char[WRITE_BLOCK]};
  size_t used = 0;
  bool failed = false;

  explicit blockOut(FILE *o) : out(o) {}
  void flush() {
    if (used && !failed && std::fwrite(buf.get(), 1, used, out) != used)
      failed = true;
    used = 0;
  }
  char *room(size_t most) {
    if (WRITE_BLOCK - used < most)
      flush();
    return buf.get() + used;
  }
  void done(const char *end) { used = static_cast<size_t>(end - buf.get()); }
  // Hands the rest to the stream; false, with EIO recorded, when any write
  // failed. A full disk often shows only when the stream's own buffer is
  // flushed.
  bool finish() {
    flush();
    if (failed || std::fflush(out) != 0 || std::ferror(out)) {
      hex_setError(EIO);
      return false;
    }
    return true;
  }
};

// The image as runs of present bytes. The row the last run ended in is
// kept: the next run usually starts there.
struct presentRuns {
  const hexdata *img;
  const hex_row *last = nullptr;
  uint64_t lastRow = 0;

  // The lowest present address >= from.
  bool next(uint64_t from, uint64_t *found) {
    if (last && hex_rowOf(from) == lastRow) {
      const unsigned c = plane_next(last->present, unsigned(from & 0xFF), 255, true);
      if (c <= 255) {
        *found = (lastRow << 8) + c;
        return true;
      }
    }
    return hex_nextPresent(img, from, found);
  }

  // Copies the present bytes from a on into d, at most limit of them and
  // none after the first absent one; returns how many.
  uint32_t take(uint64_t a, uint64_t limit, uint8_t *d) {
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
      std::memcpy(d + k, row->data + col, j);
      k += j;
      if (j < m)
        break;
    }
    return k;
  }
};

// The number of data bytes a record may hold: the configured length (a
// zero length is never configured and is taken as one), at most `most`.
inline uint32_t recordLength(const ihex *x, uint32_t most) {
  return std::clamp<uint32_t>(x->maxLength, 1, most);
}

// How many bytes the next record from a may take: up to len, and the byte
// at a break starts a record of its own.
inline uint64_t untilBreak(const ihex *x, uint64_t a, uint64_t len) {
  auto br = x->breaks.upper_bound(a);
  return br != x->breaks.end() ? std::min<uint64_t>(len, *br - a) : len;
}

} // namespace hextext
