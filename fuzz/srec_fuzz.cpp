// libFuzzer target for the S-record reader. The first input byte picks the
// read settings (fuzz/codec.h); the rest is the file. Whatever the reader
// took must write in every variant without harm; read without settings,
// what a variant wrote must read back to the same image and, where the
// width holds it, the same start address (a start address of 0 reads back
// as none: the termination record of an image without one carries 0).
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "formats/srec.h"
#include "fuzz/codec.h"
#include "image/hex_errno.h"

namespace {

// Writes x in `variant` and reads it back; aborts when the two differ.
void roundTrip(const ihex *x, unsigned variant) {
  char *text = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&text, &len);
  hex_clearErrors();
  const int wrote = srec_write(x, out, variant);
  const bool slaDropped = hex_errorCount() > 0; // EHEX with IHEX_REASON_NO_SLA
  std::fclose(out);
  if (wrote) {
    ihex *y = ihex_create();
    FILE *back = fuzz_open(reinterpret_cast<const uint8_t *>(text), len);
    ihex_extent placed;
    hex_clearErrors();
    if (!srec_readToMerge(y, back, nullptr, nullptr, &placed) ||
        !fuzz_sameImage(x->image, y->image) ||
        ihex_getSLA(y) != (x->hasEIP && !slaDropped ? x->EIP : 0))
      std::abort();
    std::fclose(back);
    ihex_destroy(y);
  }
  std::free(text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ihex_readspec spec;
  const ihex_readspec *use = nullptr;
  FILE *in = fuzz_file(data, size, &spec, &use);
  hex_clearErrors();
  ihex *x = ihex_create();
  ihex_extent placed;
  srec_readToMerge(x, in, use, nullptr, &placed);
  std::fclose(in);
  // Read settings may leave preserved bytes, which no file carries; an
  // image read without them, even from a refused file, holds only bytes.
  static FILE *sink = std::fopen("/dev/null", "w");
  for (unsigned variant = SREC_AUTO; variant <= SREC_S37; ++variant) {
    hex_clearErrors();
    if (use)
      srec_write(x, sink, variant);
    else
      roundTrip(x, variant);
  }
  ihex_destroy(x);
  hex_clearErrors();
  return 0;
}
