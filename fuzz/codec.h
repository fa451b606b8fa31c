// Shared pieces of the codec fuzz targets: the input as a stream, the
// read settings a mode byte picks, and images compared byte by byte.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

#include "formats/place.h"
#include "image/hex_errno.h"
#include "image/hexdata.h"

inline FILE *fuzz_open(const uint8_t *data, size_t size) {
  return size ? fmemopen(const_cast<uint8_t *>(data), size, "r") : std::tmpfile();
}

// The input as a regular file (readers that take its size or its
// descriptor) or as a stream without either.
inline FILE *fuzz_openAs(const uint8_t *data, size_t size, bool regular) {
  if (!regular)
    return fuzz_open(data, size);
  const int fd = memfd_create("fuzz", 0);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || lseek(fd, 0, SEEK_SET) != 0)
    std::abort();
  return fdopen(fd, "r");
}

// Read settings by the low bits of mode: none (null), a range, a negative
// offset, or a large offset with preserving.
inline const ihex_readspec *fuzz_readSettings(uint8_t mode, ihex_readspec *spec) {
  bool set = true;
  switch (mode & 7) {
  case 1:
    set = ihex_readspec_setStart(spec, 0x100) && ihex_readspec_setEnd(spec, 0x1FFFF);
    break;
  case 2:
    set = ihex_readspec_setOffset(spec, -0x1000);
    break;
  case 3:
    set = ihex_readspec_setOffset(spec, 0x7FFFFFFF) && store_setPreserve(&spec->policy, true);
    break;
  default:
    return nullptr;
  }
  if (!set)
    std::abort();
  return spec;
}

// The input of a reader's target: the first byte picks the read settings
// (*use, null for none), the rest is the file, returned as a stream.
inline FILE *fuzz_file(const uint8_t *data, size_t size, ihex_readspec *spec,
                       const ihex_readspec **use) {
  *use = fuzz_readSettings(size ? data[0] : 0, spec);
  return size ? fuzz_open(data + 1, size - 1) : std::tmpfile();
}

// Bytes, attributes and notes, row by row, over every row either image has.
inline bool fuzz_sameImage(const hexdata *a, const hexdata *b) {
  if (hex_getByteCount(a) != hex_getByteCount(b))
    return false;
  hex_clearErrors();
  uint64_t next = 0, at = 0;
  while (hex_nextPresent(a, next, &at) || hex_nextPresent(b, next, &at)) {
    uint64_t atB = 0;
    if (!hex_nextPresent(b, next, &atB) || atB != at)
      return false;
    const hex_row *ra = hex_getRow(a, hex_rowOf(at)), *rb = hex_getRow(b, hex_rowOf(at));
    const unsigned c = unsigned(at & 0xFF);
    if (hex_rowAttr(ra, c) != hex_rowAttr(rb, c) || ra->data[c] != rb->data[c] ||
        hex_getNote(a, at) != hex_getNote(b, at))
      return false;
    if (at == ~uint64_t(0))
      break;
    next = at + 1;
  }
  hex_clearErrors();
  return true;
}
