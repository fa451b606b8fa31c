// Raw binary codec: byte i of a file is the byte at address i. The reader
// places a file under the read settings (its range crops by file offsets);
// the writer emits the bytes from the lowest to the highest data address
// with the gaps as 0x00. A raw binary holds no start address. Neither
// prints: problems are recorded in the error list (hex_errno.h).
#pragma once

#include <cstdint>
#include <cstdio>

#include "formats/place.h"
#include "image/hexobject.h"

// Reads a whole raw binary stream, from its position on, into x, as
// srec_readToMerge does (dst and placed may be null; ENULL for a null x or
// stream). The bytes the range keeps are counted before any is stored: a
// regular file by its size, any other stream by reading it into memory
// first, up to the range's end. More than HEX_ROW_BUDGET rows of them
// records EBUDGET with the rows and places nothing; a stream stops being
// read once past the budget, so its rows are those counted by then. EIO,
// and the placing refusals of place.h.
bool bin_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                     ihex_extent *placed);

// Writes hex_getLoAddr..hex_getHiAddr of the image, gaps as 0x00; nothing
// for an empty image. The span is not limited here: the caller weighs it
// (and any start address, which is not written) first. 1 on success; ENULL
// for a null x or stream, EIO when the stream fails.
int bin_write(const ihex *x, FILE *out);
