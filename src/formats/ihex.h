// Intel HEX codec: the reader (ihex_readSpecd, ihex_readToMerge) turns a
// stream into a hex object's image and start addresses under read settings
// (place.h); the writer (ihex_write) emits an image in one of the four
// output variants. Neither prints: problems are recorded in the error list
// (hex_errno.h).
#pragma once

#include <cstdint>
#include <cstdio>

#include "formats/place.h"
#include "image/hexobject.h"

// Reads a whole Intel HEX stream into x (its image is cleared first).
// True when the stream was read without any recorded problem.
bool ihex_readSpecd(ihex *x, FILE *in, const ihex_readspec *spec);
bool ihex_read(ihex *x, FILE *in);

// ihex_readSpecd for a stream about to be merged into dst with
// ihex_merge(.., x, force) where force = spec->policy.clobber. For a plain
// read (no force, no preserve) bytes that the merge would leave unchanged
// (dst holds an equal byte there, not HEX_PRESERVED) are left out of x's
// image, and a later record at such an address is judged as if the byte
// were held. Records, result and merged outcome are those of
// ihex_readSpecd; dst must not change before the merge. *placed gets the
// extent x's image would have had with nothing left out. ENULL for a null
// x, stream or placed; dst may be null (nothing is left out).
bool ihex_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                      ihex_extent *placed);

// Writer codes: 0 INHX8M, 1 INHX16, 2 INHX32, 3 INHX032.
enum { IHEX_REASON_8M_RANGE = 0, IHEX_REASON_16_RANGE = 1, IHEX_REASON_32_RANGE = 2,
       IHEX_REASON_NO_SSA = 3, IHEX_REASON_NO_SLA = 4 };
// Writes the image in variant `code`; 1 on success. Refused before anything
// is written (EHEX with the IHEX_REASON_*_RANGE of the variant) when data
// lies beyond the variant's reach; a start address the variant cannot hold
// is left out with EHEX and IHEX_REASON_NO_SSA / _NO_SLA. EARG for an
// unknown variant, EIO when the stream fails.
int ihex_write(const ihex *x, FILE *out, unsigned code);
