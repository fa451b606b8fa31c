#include "romweld/settings.h"

#include <algorithm>

#include "common/atomicfile.h"
#include "formats/srec.h"
#include "image/hexobject.h"

romweld_settings romweld;

// Codec, writer variant and reach of each output variant; "UNKNOWN" ends
// the table and is never a valid choice. S-records carry a start linear
// address in their termination record but nothing like a segment address;
// a raw binary carries neither.
const outformat outformat_table[10] = {
    {1, "INHX8M", OUT_IHEX, 0, false, false, 2},
    {2, "INHX16", OUT_IHEX, 1, false, true, 3},
    {3, "INHX32", OUT_IHEX, 2, true, false, 4},
    {4, "INHX032", OUT_IHEX, 3, true, false, 4},
    {5, "SREC", OUT_SREC, SREC_AUTO, true, false, 4},
    {6, "S19", OUT_SREC, SREC_S19, true, false, 2},
    {7, "S28", OUT_SREC, SREC_S28, true, false, 3},
    {8, "S37", OUT_SREC, SREC_S37, true, false, 4},
    {9, "BIN", OUT_BIN, 0, false, false, 4},
    {0, "UNKNOWN", OUT_IHEX, 3, true, false, 0},
};

const outformat *outformat_default() { return &outformat_table[2]; }

void romweld_reset() {
  // Texts not put in place by the end of the run never replace anything.
  if (romweld.log.file)
    atomic_discard(romweld.log.file);
  if (romweld.output.file)
    atomic_discard(romweld.output.file);
  if (romweld.hex)
    ihex_destroy(romweld.hex);
  romweld = romweld_settings{};
}

namespace {
// The first range sets the pair, later ones widen it.
void widen(uint64_t *plo, uint64_t *phi, bool *empty, uint64_t lo, uint64_t hi) {
  *plo = *empty ? lo : std::min(*plo, lo);
  *phi = *empty ? hi : std::max(*phi, hi);
  *empty = false;
}
} // namespace

void romweld_widenExtents(uint64_t lo, uint64_t hi) {
  widen(&romweld.log.lo, &romweld.log.hi, &romweld.log.noExtent, lo, hi);
}
