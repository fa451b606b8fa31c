// libFuzzer target for the raw binary codec. The first input byte picks the
// read settings (none, a range, an offset up, an offset below 0) and
// whether the bytes come as a regular file or as a stream; the rest is the
// file. What is read must write back as exactly the bytes the range kept.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "formats/bin.h"
#include "fuzz/codec.h"
#include "image/hex_errno.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const uint8_t mode = size ? data[0] : 0;
  if (size)
    ++data, --size;
  ihex_readspec settings;
  size_t first = 0, last = size; // the bytes the settings keep: first..last-1
  switch (mode & 3) {
  case 1:
    if (!ihex_readspec_setStart(&settings, 0x10) || !ihex_readspec_setEnd(&settings, 0x13F))
      std::abort();
    first = std::min<size_t>(size, 0x10);
    last = std::min<size_t>(size, 0x140);
    break;
  case 2:
    if (!ihex_readspec_setOffset(&settings, 0x7FFFFFFF))
      std::abort();
    break;
  case 3:
    if (!ihex_readspec_setOffset(&settings, -1))
      std::abort();
    break;
  default:
    break;
  }

  hex_clearErrors();
  ihex *x = ihex_create();
  FILE *in = fuzz_openAs(data, size, mode & 4);
  const bool ok = bin_readToMerge(x, in, &settings, nullptr, nullptr);
  std::fclose(in);
  if (ok != ((mode & 3) != 3 || size == 0))
    std::abort(); // only an offset below address 0 refuses a file

  char *text = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&text, &len);
  hex_clearErrors();
  const int wrote = bin_write(x, out);
  std::fclose(out);
  if (ok && (!wrote || len != last - first || std::memcmp(text, data + first, len) != 0))
    std::abort(); // what was kept writes back unchanged
  std::free(text);
  ihex_destroy(x);
  hex_clearErrors();
  return 0;
}
