// libFuzzer differential target for later input files: reading a file
// straight against the main image (a codec's readToMerge, which leaves out
// bytes the main image already holds unchanged) and then merging must end
// exactly like a plain read followed by ihex_merge: the same records from the read
// and from the merge, the same outcome, the same extent, and the same bytes,
// attributes and notes in the main image.
//
// Input: byte 0 picks the later file's read settings and force, and by its
// bit 5 the codec of both files (Intel HEX or S-records); byte 1 where the
// rest splits into the main file and the later file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fuzz/codec.h"
#include "fuzz/harness.h"
#include "image/hex_errno.h"
#include "formats/ihex.h"
#include "formats/srec.h"

namespace {

char kNoteA, kNoteB; // two distinct owners

// A codec's reader: ihex_readToMerge or srec_readToMerge. With no image to
// merge into, it reads the whole file, as a plain read does.
using readFn = bool (*)(ihex *, FILE *, const ihex_readspec *, const hexdata *, ihex_extent *);

void readAlone(readFn read, ihex *x, const uint8_t *data, size_t size, const ihex_readspec *spec) {
  ihex_extent unused;
  FILE *in = fuzz_open(data, size);
  read(x, in, spec, nullptr, &unused);
  std::fclose(in);
}

std::vector<hex_error> takeErrors() {
  std::vector<hex_error> out;
  for (uint32_t i = 0; i < hex_errorCount(); ++i)
    out.push_back(hex_errorAt(i));
  hex_clearErrors();
  return out;
}

bool sameErrors(const std::vector<hex_error> &a, const std::vector<hex_error> &b) {
  if (a.size() != b.size())
    return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i].code != b[i].code || a[i].addr != b[i].addr || a[i].note != b[i].note ||
        a[i].num != b[i].num || a[i].num2 != b[i].num2 || a[i].flag != b[i].flag ||
        a[i].ch != b[i].ch)
      return false;
  return true;
}

struct outcome {
  ihex *main;
  std::vector<hex_error> readErrors, mergeErrors;
  bool merged;
  ihex_extent extent;
};

ihex *readMain(readFn read, const uint8_t *data, size_t size) {
  ihex_readspec spec;
  if (!store_setOwner(&spec.policy, &kNoteA))
    std::abort();
  ihex *x = ihex_create();
  readAlone(read, x, data, size, &spec);
  hex_clearErrors();
  return x;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup();
  if (size < 2)
    return 0;
  const uint8_t mode = data[0];
  const readFn read = (mode & 32) ? srec_readToMerge : ihex_readToMerge;
  const size_t split = (size - 2) * data[1] / 255;
  const uint8_t *first = data + 2, *later = first + split;
  const size_t firstSize = split, laterSize = size - 2 - split;

  ihex_readspec spec;
  const bool force = mode & 1;
  bool set = store_setOwner(&spec.policy, &kNoteB) && store_setClobber(&spec.policy, force) &&
             store_setPreserve(&spec.policy, mode & 2);
  if (mode & 4)
    set = set && ihex_readspec_setStart(&spec, 0x10) && ihex_readspec_setEnd(&spec, 0x1FFFF);
  if (mode & 8)
    set = set && ihex_readspec_setOffset(&spec, (mode & 16) ? -0x100 : 0x10000);
  if (!set) // a range start the offset would move below 0: nothing to read
    return 0;
  hex_clearErrors();

  outcome fast{readMain(read, first, firstSize), {}, {}, false, {}};
  ihex *x = ihex_create();
  FILE *in = fuzz_open(later, laterSize);
  read(x, in, &spec, ihex_getImage(fast.main), &fast.extent);
  std::fclose(in);
  fast.readErrors = takeErrors();
  fast.merged = ihex_merge(fast.main, x, force);
  fast.mergeErrors = takeErrors();
  ihex_destroy(x);

  outcome plain{readMain(read, first, firstSize), {}, {}, false, {}};
  ihex *y = ihex_create();
  readAlone(read, y, later, laterSize, &spec);
  plain.readErrors = takeErrors();
  const hexdata *yi = ihex_getImage(y);
  plain.extent.count = hex_getByteCount(yi);
  plain.extent.lo = plain.extent.count ? hex_getLoAddr(yi) : 0;
  plain.extent.hi = plain.extent.count ? hex_getHiAddr(yi) : 0;
  hex_clearErrors();
  plain.merged = ihex_merge(plain.main, y, force);
  plain.mergeErrors = takeErrors();
  ihex_destroy(y);

  if (!sameErrors(fast.readErrors, plain.readErrors) ||
      !sameErrors(fast.mergeErrors, plain.mergeErrors) || fast.merged != plain.merged ||
      fast.extent.count != plain.extent.count || fast.extent.lo != plain.extent.lo ||
      fast.extent.hi != plain.extent.hi ||
      !fuzz_sameImage(ihex_getImage(fast.main), ihex_getImage(plain.main)))
    std::abort();
  ihex_destroy(fast.main);
  ihex_destroy(plain.main);
  return 0;
}
