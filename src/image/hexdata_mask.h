// Mask engine: ANDs a mask record's bytes (mask_spec.h) into the data present
// in an image over the record's range, walking rows. The mask byte of address
// A is mask[A mod n], whatever the range's start. Only present bytes change
// and only their data: attributes (but the optional preserve mark) and notes
// stay; masking never creates data.
#pragma once

#include "image/hexdata.h"
#include "image/mask_spec.h"

// Returns 1 when the range (clipped to the image's bounds) was masked;
// 0 with ENOMASK when the record has no mask byte, with ENULL, or with
// EPRESERVED at the first preserved byte of the range, where masking stops
// (bytes below it stay masked).
[[nodiscard]] int hex_mask(hexdata *h, const maskspec *m);
