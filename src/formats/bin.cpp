// Raw binary codec. The reader weighs what the range keeps against the row
// budget before it stores a byte: a regular file by its size, any other
// stream by reading it whole into memory first (only the kept bytes are
// held). Then it places one large block at a time. The writer walks the
// image's present rows and writes the gaps between them as runs of zeros,
// so a sparse image costs time per row held, not per address.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "formats/bin.h"
#include "image/hex_errno.h"

namespace {

// Buffers hold at most BLOCK bytes, and no more than a small file or image
// needs (a stream's blocks start smaller and grow).
constexpr size_t BLOCK = size_t(1) << 20;
constexpr size_t FIRST_BLOCK = size_t(1) << 16;

using block = std::unique_ptr<uint8_t[]>;

// The file addresses the settings keep: first..last, open-ended without a
// range end.
struct kept {
  uint64_t first = 0;
  uint64_t last = UINT64_MAX;
  explicit kept(const ihex_readspec *settings) {
    if (settings && settings->range.hasStart)
      first = settings->range.start;
    if (settings && settings->range.hasEnd)
      last = settings->range.end;
  }
};

struct reader {
  place_sink *sink;
  const ihex_readspec *settings;
  bool ok = true;

  // False when reading must stop.
  bool place(uint64_t fa, const uint8_t *d, uint64_t n) {
    switch (place_piece(sink, fa, d, n)) {
    case PLACE_OK:
      return true;
    case PLACE_REFUSED:
      ok = false;
      return true;
    case PLACE_STOP:
      break;
    }
    ok = false;
    return false;
  }

  // False, with EBUDGET recorded, when the bytes from file address 0 to
  // n-1 keep more rows than the budget allows.
  bool withinBudget(uint64_t n) {
    const uint64_t rows = place_rows(settings, 0, n);
    if (rows <= HEX_ROW_BUDGET)
      return true;
    hex_setBudgetError(rows, 0);
    ok = false;
    return false;
  }
};

// The bytes left in a regular file from the stream's position, or -1 for a
// stream that cannot tell them in advance (a pipe, a terminal, a memory
// stream, or a file that reports no size).
int64_t sizeLeft(FILE *in) {
  struct stat st;
  const int fd = fileno(in);
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0)
    return -1;
  const off_t at = ftello(in);
  if (at < 0)
    return -1;
  return std::max<int64_t>(0, st.st_size - at);
}

// A regular file: its size is weighed, the bytes before the range are
// skipped, and reading ends at the range's end or at the size measured (a
// file growing meanwhile does not outgrow the budget it was weighed by).
bool readSized(reader &r, FILE *in, uint64_t size) {
  if (!r.withinBudget(size))
    return false;
  const kept k(r.settings);
  if (size == 0 || k.first > size - 1)
    return true;
  const uint64_t last = std::min(k.last, size - 1);
  if (k.first > 0 && fseeko(in, static_cast<off_t>(k.first), SEEK_CUR) != 0) {
    hex_setError(EIO);
    return false;
  }
  const size_t cap = static_cast<size_t>(std::min<uint64_t>(BLOCK, last - k.first + 1));
  block buf(new uint8_t[cap]);
  for (uint64_t fa = k.first; fa <= last;) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(cap, last - fa + 1));
    const size_t got = std::fread(buf.get(), 1, want, in);
    if (!r.place(fa, buf.get(), got))
      return false;
    fa += got;
    if (got < want)
      break;
  }
  return true;
}

// Any other stream: read to its end (or the range's end) into blocks that
// hold only the kept bytes, counting as they arrive; placed once the whole
// stream is known to fit.
bool readStream(reader &r, FILE *in) {
  const kept k(r.settings);
  struct held {
    block data;
    uint64_t fa;
    size_t from, n;
  };
  std::vector<held> blocks;
  block buf;
  size_t cap = FIRST_BLOCK;
  uint64_t fa = 0; // the file address of the next byte read
  while (fa <= k.last) {
    if (!buf)
      buf.reset(new uint8_t[cap]);
    const size_t got = std::fread(buf.get(), 1, cap, in);
    if (got == 0)
      break;
    const uint64_t end = fa + got; // one past the block
    if (end > k.first) {
      const size_t from = static_cast<size_t>(std::max(fa, k.first) - fa);
      const size_t to = static_cast<size_t>(std::min(end - 1, k.last) - fa + 1);
      blocks.push_back({std::move(buf), fa, from, to - from});
      cap = std::min(BLOCK, 2 * cap);
    }
    fa = end;
    if (!r.withinBudget(fa))
      return false;
  }
  if (std::ferror(in)) {
    hex_setError(EIO);
    return false;
  }
  for (held &b : blocks) {
    if (!r.place(b.fa + b.from, b.data.get() + b.from, b.n))
      return false;
    b.data.reset(); // the image now holds it
  }
  return true;
}

} // namespace

bool bin_readToMerge(ihex *x, FILE *in, const ihex_readspec *settings, const hexdata *dst,
                     ihex_extent *placed) {
  return place_read(x, in, settings, dst, placed, [&](place_sink &sink) {
    reader r{&sink, settings};
    const int64_t size = sizeLeft(in);
    bool ok = size >= 0 ? readSized(r, in, static_cast<uint64_t>(size)) : readStream(r, in);
    if (ok && std::ferror(in)) {
      hex_setError(EIO);
      ok = false;
    }
    return ok && r.ok;
  });
}

namespace {

struct writer {
  FILE *out;
  uint8_t *buf;
  size_t cap;
  size_t used = 0;
  bool failed = false;

  void flush() {
    if (used && !failed && std::fwrite(buf, 1, used, out) != used)
      failed = true;
    used = 0;
  }
  // n zeros, or n bytes from d.
  void put(const uint8_t *d, uint64_t n) {
    while (n > 0 && !failed) {
      if (used == cap)
        flush();
      const size_t m = static_cast<size_t>(std::min<uint64_t>(n, cap - used));
      if (d) {
        std::memcpy(buf + used, d, m);
        d += m;
      } else {
        std::memset(buf + used, 0, m);
      }
      used += m;
      n -= m;
    }
  }
};

} // namespace

int bin_write(const ihex *x, FILE *out) {
  if (!x || !out) {
    hex_setError(ENULL);
    return 0;
  }
  const hexdata *img = x->image;
  const bool any = hex_getByteCount(img) > 0;
  const uint64_t lo = any ? hex_getLoAddr(img) : 0, hi = any ? hex_getHiAddr(img) : 0;
  const size_t cap = static_cast<size_t>(std::min<uint64_t>(BLOCK - 1, hi - lo) + 1);
  block buf(new uint8_t[cap]);
  writer w{out, buf.get(), cap};
  if (any) {
    uint64_t next = lo; // the next address to write
    uint64_t a = 0;
    // An absent slot of a row holds 0, so each row held goes out whole
    // (clipped to the image's bounds), and only the rows between need zeros.
    while (!w.failed && hex_nextPresent(img, next, &a)) {
      const uint64_t rowLo = a & ~uint64_t(0xFF);
      const uint64_t from = std::max(next, rowLo);
      const uint64_t to = std::min(rowLo | 0xFF, hi);
      w.put(nullptr, from - next);
      w.put(hex_getRow(img, hex_rowOf(a))->data + (from & 0xFF), to - from + 1);
      if (to == hi)
        break;
      next = to + 1;
    }
  }
  w.flush();
  // A full disk often shows only when the stream's own buffer is flushed.
  if (w.failed || std::fflush(out) != 0 || std::ferror(out)) {
    hex_setError(EIO);
    return 0;
  }
  return 1;
}
