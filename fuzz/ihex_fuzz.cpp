// libFuzzer target for the Intel HEX reader. The first input byte picks a
// read settings (none, a range, a negative or positive offset, forced store);
// the rest is the file. Whatever the reader accepted must write in every
// variant, and what INHX032 writes must read back to the same image.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "formats/ihex.h"
#include "fuzz/codec.h"
#include "image/hex_errno.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static FILE *sink = std::fopen("/dev/null", "w");
  ihex_readspec spec;
  const ihex_readspec *use = nullptr;
  FILE *in = fuzz_file(data, size, &spec, &use);
  hex_clearErrors();
  ihex *x = ihex_create();
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
      if (!ihex_read(y, back) || !fuzz_sameImage(x->image, y->image))
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
