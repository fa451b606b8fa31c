#include "romweld/settings.h"

#include <algorithm>

#include "common/atomicfile.h"
#include "image/hexobject.h"

romweld_settings romweld;

// Writer codes and reach of each Intel HEX variant; "UNKNOWN" ends the
// table and is never a valid choice.
const outformat outformat_table[5] = {
    {1, "INHX8M", 0, false, false, 2},
    {2, "INHX16", 1, false, true, 3},
    {3, "INHX32", 2, true, false, 4},
    {4, "INHX032", 3, true, false, 4},
    {0, "UNKNOWN", 3, true, false, 0},
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
