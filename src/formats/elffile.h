// ELF reader (32- and 64-bit, either byte order, through libelf): places
// the bytes of every allocated section that has contents in the file, at
// its load address (a section inside a loadable segment, by address and by
// file offset, sits at the segment's physical address plus its distance
// from the segment's virtual address; a file whose program headers all
// leave the physical address 0 and that has more than one loadable segment
// states none, and its sections sit at their own addresses), and takes a
// non-zero entry point that fits in 32 bits as the start linear address.
// Sections without contents (.bss) place nothing; the bytes are the file's
// as they are, in the target's byte order. Never prints: problems are
// recorded in the error list (hex_errno.h).
#pragma once

#include <cstdint>
#include <cstdio>

#include "formats/place.h"
#include "image/hexobject.h"

// Reasons of EBADFILE.
enum {
  ELFFILE_UNREADABLE = 1, // not an ELF file libelf reads (header, class, version)
  ELFFILE_TRUNCATED = 2,  // a header table or a section's contents run past the end
  ELFFILE_MALFORMED = 3,  // a header table or a section header that cannot be read
  ELFFILE_NOTHING = 4,    // no allocated section with contents
};

// Reads a whole ELF file (from the stream's descriptor, whatever its
// position; a stream that is not a regular file is read whole into memory)
// into x, as srec_readToMerge does (dst and placed may be null; ENULL for a
// null x or stream). A file with any EBADFILE problem places nothing.
// Sections may share their contents in the file, so a small file can
// describe a large image: the rows the sections would fill are counted
// first, and more than HEX_ROW_BUDGET records EBUDGET with the rows and
// places nothing. EIO, and the placing refusals of place.h.
bool elffile_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                         ihex_extent *placed);
