// S-record codec. The reader takes S1/S2/S3 data (16-, 24- and 32-bit
// addresses), ignores the S0 header, checks S5/S6 counts against the data
// records before them and takes an S7/S8/S9 address, 0 included, as the
// start linear address; any bad line, checksum or count refuses the file
// whole. The writer emits an S0 header, data records of one address width,
// a count record and the matching termination record. Neither prints:
// problems are recorded in the error list (hex_errno.h).
#pragma once

#include <cstdint>
#include <cstdio>

#include "formats/place.h"
#include "image/hexobject.h"

// Reads a whole S-record stream into x (its image and start addresses are
// cleared first) under the read settings, as ihex_readToMerge does: dst,
// when not null, is the image x is about to be merged into with
// ihex_merge(.., x, spec->policy.clobber); placed, when not null, gets the
// extent of what the stream placed. True when the stream was read without
// any recorded problem; on false the caller must place nothing from x, not
// even when only a checksum failed. Hexadecimal digits of either case, CR/LF line ends,
// trailing white space and blank lines are accepted; the termination
// record may be missing (no start address then). Data of an S3 record that
// runs past 0xFFFFFFFF goes on at 0. Records EREADHEX (line) for a line
// that is not a well-formed S-record or a record type that has no place
// (S4, any record after the termination record), EBADCHAR (line) for a
// character that is neither a digit nor white space among the digits,
// ECHECKSUM (line) for a record that fails its checksum, ECOUNT for a count
// record that disagrees, ENOEOF for a stream without any record, EIO, ENULL
// for a null x or stream, and the placing refusals of place.h.
bool srec_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                      ihex_extent *placed);

// Writer variants: the data record type chosen by the highest data address
// and the start linear address (S1 up to 0xFFFF, S2 up to 0xFFFFFF, else
// S3), or forced.
enum { SREC_AUTO = 0, SREC_S19 = 1, SREC_S28 = 2, SREC_S37 = 3 };
// EHEX reasons of the writer, after the Intel HEX ones (ihex.h).
enum { SREC_REASON_S19_RANGE = 5, SREC_REASON_S28_RANGE = 6, SREC_REASON_S37_RANGE = 7 };
// Writes the image with x->maxLength data bytes per record (at most what
// the count byte allows: 252, 251 or 250 by width), starting a new record
// at each of x->breaks and after each gap; 1 on success. The count record
// is S5, S6 above 65535 records, and left out above 0xFFFFFF; the
// termination record carries the start linear address, 0 when there is
// none. Refused before anything is written (EHEX with the
// SREC_REASON_*_RANGE of the record type) when data lies beyond the record
// type's reach (above 0xFFFFFFFF for every variant); a start address a
// forced variant cannot hold is left out (termination address 0) with EHEX
// and IHEX_REASON_NO_SLA, a start segment address with IHEX_REASON_NO_SSA.
// EARG for an unknown variant, EIO when the stream fails, ENULL for a null
// x or stream.
int srec_write(const ihex *x, FILE *out, unsigned variant);
