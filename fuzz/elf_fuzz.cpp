// libFuzzer target for the ELF reader. The first input byte picks the read
// settings (none, a range, a negative offset, a preserving store) and
// whether the file comes as a regular file (mapped by libelf) or as a
// stream (read into memory); the rest is the file. Whatever the reader
// accepted must write as raw binary and as Intel HEX; a file it refused
// must have placed nothing.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "formats/bin.h"
#include "formats/elffile.h"
#include "formats/ihex.h"
#include "fuzz/codec.h"
#include "image/hex_errno.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static FILE *sink = std::fopen("/dev/null", "w");
  const uint8_t mode = size ? data[0] : 0;
  ihex_readspec settings;
  const ihex_readspec *use = nullptr;
  switch (mode & 3) {
  case 1:
    if (!ihex_readspec_setStart(&settings, 0x100) || !ihex_readspec_setEnd(&settings, 0x0800FFFF))
      std::abort();
    use = &settings;
    break;
  case 2:
    if (!ihex_readspec_setOffset(&settings, -0x1000))
      std::abort();
    use = &settings;
    break;
  case 3:
    if (!store_setPreserve(&settings.policy, true))
      std::abort();
    use = &settings;
    break;
  default:
    break;
  }
  if (size)
    ++data, --size;

  hex_clearErrors();
  ihex *x = ihex_create();
  FILE *in = fuzz_openAs(data, size, mode & 4);
  const bool ok = elffile_readToMerge(x, in, use, nullptr, nullptr);
  std::fclose(in);
  for (uint32_t i = 0; i < hex_errorCount(); ++i)
    if (hex_errorAt(i).code == EBADFILE && hex_getByteCount(x->image) != 0)
      std::abort(); // a refused file places nothing

  const uint64_t n = hex_getByteCount(x->image);
  if (ok && n > 0 && hex_getHiAddr(x->image) - hex_getLoAddr(x->image) < (1u << 20)) {
    hex_clearErrors();
    if (!bin_write(x, sink))
      std::abort();
  }
  hex_clearErrors();
  ihex_write(x, sink, 3);
  ihex_destroy(x);
  hex_clearErrors();
  return 0;
}
