// libFuzzer differential target for later input files: reading a file
// straight against the main image (ihex_readToMerge, which leaves out bytes
// the main image already holds unchanged) and then merging must end exactly
// like a plain read followed by ihex_merge: the same records from the read
// and from the merge, the same outcome, the same extent, and the same bytes,
// attributes and notes in the main image.
//
// Input: byte 0 picks the later file's read settings and force, byte 1 where the
// rest splits into the main file and the later file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fuzz/harness.h"
#include "image/hex_errno.h"
#include "formats/ihex.h"

namespace {

char kNoteA, kNoteB; // two distinct owners

FILE *openBytes(const uint8_t *data, size_t size) {
  return size ? fmemopen(const_cast<uint8_t *>(data), size, "r") : std::tmpfile();
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

// Bytes, attributes and notes, row by row, over every row either image has.
bool sameImage(const hexdata *a, const hexdata *b) {
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

struct outcome {
  ihex *main;
  std::vector<hex_error> readErrors, mergeErrors;
  bool merged;
  ihex_extent extent;
};

ihex *readMain(const uint8_t *data, size_t size) {
  ihex_readspec spec;
  if (!store_setOwner(&spec.policy, &kNoteA))
    std::abort();
  ihex *x = ihex_create();
  FILE *in = openBytes(data, size);
  ihex_readSpecd(x, in, &spec);
  std::fclose(in);
  hex_clearErrors();
  return x;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup();
  if (size < 2)
    return 0;
  const uint8_t mode = data[0];
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

  outcome fast{readMain(first, firstSize), {}, {}, false, {}};
  ihex *x = ihex_create();
  FILE *in = openBytes(later, laterSize);
  ihex_readToMerge(x, in, &spec, ihex_getImage(fast.main), &fast.extent);
  std::fclose(in);
  fast.readErrors = takeErrors();
  fast.merged = ihex_merge(fast.main, x, force);
  fast.mergeErrors = takeErrors();
  ihex_destroy(x);

  outcome plain{readMain(first, firstSize), {}, {}, false, {}};
  ihex *y = ihex_create();
  in = openBytes(later, laterSize);
  ihex_readSpecd(y, in, &spec);
  std::fclose(in);
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
      !sameImage(ihex_getImage(fast.main), ihex_getImage(plain.main)))
    std::abort();
  ihex_destroy(fast.main);
  ihex_destroy(plain.main);
  return 0;
}
