// libFuzzer target for the Intel HEX reader. The first input byte picks a
// read settings (none, a range, a negative or positive offset, forced store);
// the rest is the file. Whatever the reader accepted must write in every
// variant, and what INHX032 writes must read back to the same image.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "image/hex_errno.h"
#include "formats/ihex.h"

namespace {

FILE *openBytes(const uint8_t *data, size_t size) {
  if (size == 0)
    return std::tmpfile();
  return fmemopen(const_cast<uint8_t *>(data), size, "r");
}

bool sameImage(const hexdata *a, const hexdata *b) {
  if (hex_getByteCount(a) != hex_getByteCount(b))
    return false;
  uint64_t next = 0, at = 0;
  while (hex_getByteCount(a) && hex_nextPresent(a, next, &at)) {
    if (!hex_hasByte(b, at) || hex_getByte(a, at) != hex_getByte(b, at))
      return false;
    next = at + 1;
  }
  return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static FILE *sink = std::fopen("/dev/null", "w");
  const uint8_t mode = size ? data[0] : 0;
  ihex_readspec spec;
  const ihex_readspec *use = nullptr;
  switch (mode & 7) {
  case 1:
    if (!ihex_readspec_setStart(&spec, 0x100) || !ihex_readspec_setEnd(&spec, 0x1FFFF))
      std::abort();
    use = &spec;
    break;
  case 2:
    if (!ihex_readspec_setOffset(&spec, -0x1000))
      std::abort();
    use = &spec;
    break;
  case 3:
    if (!ihex_readspec_setOffset(&spec, 0x7FFFFFFF) || !store_setPreserve(&spec.policy, true))
      std::abort();
    use = &spec;
    break;
  default:
    break;
  }
  if (size)
    ++data, --size;

  hex_clearErrors();
  ihex *x = ihex_create();
  FILE *in = openBytes(data, size);
  const bool ok = ihex_readSpecd(x, in, use);
  std::fclose(in);

  for (unsigned code = 0; code < 4; ++code) {
    hex_clearErrors();
    ihex_write(x, sink, code);
  }

  if (ok && !use) {
    char *text = nullptr;
    size_t len = 0;
    FILE *out = open_memstream(&text, &len);
    hex_clearErrors();
    const int wrote = ihex_write(x, out, 3);
    std::fclose(out);
    if (wrote) {
      ihex *y = ihex_create();
      FILE *back = fmemopen(text, len, "r");
      hex_clearErrors();
      if (!ihex_read(y, back) || !sameImage(x->image, y->image))
        std::abort(); // what the writer wrote must read back unchanged
      std::fclose(back);
      ihex_destroy(y);
    }
    std::free(text);
  }
  ihex_destroy(x);
  hex_clearErrors();
  return 0;
}
