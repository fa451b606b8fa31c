// Fill engine: writes a fill record's pattern (fill_spec.h) into an image over
// the record's range, in the record's mode, walking rows. The pattern is aligned
// to absolute addresses: address a takes pattern byte a mod P (P = width ×
// values), wherever the range starts. A counting pattern advances once per
// pattern period ended inside the range, written or not, so the value at an
// address depends only on the range's start and the address.
#pragma once

#include <cstdint>

#include "image/fill_spec.h"
#include "image/hexdata.h"

// The addresses a fill walks: lo..hi, or none when lo > hi. In the data-row
// mode the range grows to the row grid below and by its own distance past
// a row boundary, less one, above (never wrapping past the top).
struct fill_walk {
  uint64_t lo, hi;
};
fill_walk hex_fillWalk(const fillspec *f);

// Returns 1 when the walk reached the end of the range. 0 with the reason
// recorded: ENULL, ENOSTART (no start), ENOVALUE (no value), EBUDGET (the
// rows the fill would add to the image exceed what the options may still
// add, hexdata.h; nothing written), or the first refused store (EPRESERVED,
// ECLASH with its address), which ends the walk; bytes written before it
// stay written.
[[nodiscard]] int hex_fill(hexdata *h, const fillspec *f);
