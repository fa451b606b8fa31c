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

// The most rows of 256 addresses one fill may add to an image: 1 GiB of
// address space, about 1.5 GiB of memory. A fill that would add more is
// refused before it writes anything, so a range that cannot be held ends at
// once instead of after the machine has run out of memory.
constexpr uint64_t HEX_FILL_MAX_NEW_ROWS = uint64_t(1) << 22;

// Returns 1 when the walk reached the end of the range. 0 with the reason
// recorded: ENULL, ENOSTART (no start), ENOVALUE (no value), EMEMORY (the
// rows the fill would add exceed HEX_FILL_MAX_NEW_ROWS; nothing written),
// or the first refused store (EPRESERVED, ECLASH with its address), which
// ends the walk; bytes written before it stay written.
[[nodiscard]] int hex_fill(hexdata *h, const fillspec *f);
