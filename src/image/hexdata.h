// Memory image: a sparse store of bytes at unsigned 64-bit addresses, kept
// in rows of 256 addresses. Each address has a data byte, attribute bits
// (HEX_PRESENT, HEX_PRESERVED, HEX_FORCED) and a note naming the argument
// that placed it (the store never dereferences a note). Stores follow the
// plain / forced / merge rules; every refusal is recorded in the error list
// (hex_errno.h), never printed. Invariants: hex_loAddr <= hex_hiAddr and
// hex_byteCount <= hex_hiAddr - hex_loAddr + 1; an absent slot holds data 0;
// HEX_PRESERVED is only ever set on a present byte.
//
// Every address from 0 to 0xFFFFFFFFFFFFFFFF is its own slot. Memory is
// proportional to the rows touched, never to the highest address: rows are
// found by index arithmetic through a sparse directory, and walks skip
// untouched space in steps of whole directory nodes. A row whose bytes share
// one owner keeps a single note until one of its bytes gets another; then
// each byte names its owner in a list of the row's owners, at a few bits a
// byte while the row has few.
#pragma once

#include <cstdint>

#include "image/rowplane.h"

constexpr uint8_t HEX_PRESENT = 0x01;
constexpr uint8_t HEX_PRESERVED = 0x02;
constexpr uint8_t HEX_FORCED = 0x04;

struct hexdata; // defined in hexdata_internal.h

// A row's data bytes and its attribute bits, for loops that walk rows
// instead of addresses (reader, writer, engines). Row n holds addresses
// n*256..n*256+255. Each attribute is a plane of 256 bits: column c is bit
// c % 64 of word c / 64, so runs of present bytes are found a word at a time.
struct hex_row {
  uint8_t data[256];
  uint64_t present[4];
  uint64_t preserved[4];
  uint64_t forced[4];
};
inline uint64_t hex_rowOf(uint64_t addr) { return addr >> 8; }

// The attribute byte of column c (HEX_PRESENT | HEX_PRESERVED | HEX_FORCED).
inline uint8_t hex_rowAttr(const hex_row *r, unsigned c) {
  return uint8_t(plane_bit(r->present, c) * HEX_PRESENT | plane_bit(r->preserved, c) * HEX_PRESERVED |
                 plane_bit(r->forced, c) * HEX_FORCED);
}

// ---- creation and bounds ------------------------------------------------
// Every allocation of the image either succeeds or ends the run with the
// out-of-memory message (alert.h): no call returns for want of memory.
hexdata *hex_create();
int hex_clear(hexdata *h);             // empties the image; returns 1
void hex_destroy(hexdata *h);
uint64_t hex_getByteCount(const hexdata *h);
uint64_t hex_getLoAddr(const hexdata *h); // ENODATA and 0 when empty
uint64_t hex_getHiAddr(const hexdata *h); // ENODATA and 0 when empty

// ---- queries ------------------------------------------------------------
int hex_hasByte(const hexdata *h, uint64_t addr);
int hex_hasAnyByte(const hexdata *h, uint64_t start, uint64_t count);
uint8_t hex_getByte(const hexdata *h, uint64_t addr); // ENODATA when absent
int hex_anyPreserved(const hexdata *h, uint64_t start, uint64_t count);
const void *hex_getNote(const hexdata *h, uint64_t addr);
uint64_t hex_findNoteRange(const hexdata *h, uint64_t start, uint64_t end);

// Read-only row access for hot loops: null when no byte of the row was ever
// stored (a row that only has notes has no data row).
const hex_row *hex_getRow(const hexdata *h, uint64_t row);
// Lowest present address >= start, as a full 64-bit value; false when none
// up to hex_hiAddr.
bool hex_nextPresent(const hexdata *h, uint64_t start, uint64_t *found);
// The data bytes of a row for changing present bytes in place (engines
// that rewrite data without storing it anew: masking). Attributes and notes
// stay as they are, so the caller must leave every absent slot 0. Null when
// the row has no data row, as for hex_getRow.
uint8_t *hex_rowData(hexdata *h, uint64_t row);

// ---- stores -------------------------------------------------------------
int hex_storeByte(hexdata *h, uint64_t addr, uint8_t value);
int hex_forceByte(hexdata *h, uint64_t addr, uint8_t value);
int hex_putByte(hexdata *h, uint64_t addr, uint8_t value, int force);
uint64_t hex_storeBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count);
uint64_t hex_putBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count, int force);
int hex_preserveData(hexdata *h, uint64_t start, uint64_t end, int on);
int hex_setNote(hexdata *h, uint64_t start, uint64_t end, const void *note);
int hex_deleteBytes(hexdata *h, uint64_t start, uint64_t count);

// ---- the rows options may add ------------------------------------------
// Options (fills, serials, strings, checksum results) may add at most this
// many rows to an image in all: 512 MiB of address space, about 800 MB of
// memory whether a row holds one byte or 256. Each asks before it writes,
// so a mistyped range or count fails at once instead of exhausting the
// machine. Input files are not counted.
constexpr uint64_t HEX_ROW_BUDGET = uint64_t(1) << 21;
// Rows of the address range first..last that the image holds; the cost
// follows the rows held, not the range.
uint64_t hex_rowsHeld(const hexdata *h, uint64_t first, uint64_t last);
// Takes n rows from the image's budget; false, with EBUDGET recording n
// and `copies` (the serial's, else 0), when fewer are left.
[[nodiscard]] bool hex_takeRows(hexdata *h, uint64_t n, uint32_t copies = 0);

// Merges every present byte of src into dst (force adds HEX_FORCED to bytes
// merged into existing rows); 1 if no byte was refused.
int copyRows(hexdata *dst, const hexdata *src, int force);
// The same merge when src is about to be destroyed: rows that dst lacks are
// moved instead of copied. src is left empty.
int hex_mergeFrom(hexdata *dst, hexdata *src, int force);

