// Memory image: a sparse store of bytes at unsigned 64-bit addresses, kept
// in rows of 256 addresses. Each address has a data byte, attribute bits
// (HEX_PRESENT, HEX_PRESERVED, HEX_FORCED) and a note naming the argument
// that placed it (the store never dereferences a note). Stores follow the
// plain / forced / merge rules; every refusal is recorded in the error list
// (hex_errno.h), never printed. Invariants: hex_loAddr <= hex_hiAddr and
// hex_byteCount <= hex_hiAddr - hex_loAddr + 1; an absent slot holds data 0.
//
// Rows are found by direct indexing through a directory of row blocks, so
// memory stays proportional to the rows touched even for a sparse image
// spread over the whole 32-bit space. A row whose bytes share one owner
// keeps a single note until one of its bytes gets another.
#pragma once

#include <cstdint>
#include <vector>

constexpr uint8_t HEX_PRESENT = 0x01;
constexpr uint8_t HEX_PRESERVED = 0x02;
constexpr uint8_t HEX_FORCED = 0x04;

struct hexdata; // defined in hexdata.cpp

// A row's data and attribute bytes, for loops that walk rows instead of
// addresses (reader, writer, engines). Row n holds addresses n*256..n*256+255;
// the row number is the address shifted right by 8, kept as 32 bits.
struct hex_row {
  uint8_t data[256];
  uint8_t attr[256];
};
inline uint32_t hex_rowOf(uint64_t addr) { return static_cast<uint32_t>(addr >> 8); }

// ---- creation and bounds ------------------------------------------------
hexdata *hex_create();                 // null and EMEMORY on failure
int hex_clear(hexdata *h);             // empties the image; returns 1
void hex_destroy(hexdata *h);
uint64_t hex_getByteCount(const hexdata *h);
uint64_t hex_getLoAddr(const hexdata *h); // ENODATA and 0 when empty
uint64_t hex_getHiAddr(const hexdata *h); // ENODATA and 0 when empty

// ---- queries ------------------------------------------------------------
int hex_hasByte(const hexdata *h, uint64_t addr);
int hex_hasAnyByte(const hexdata *h, uint64_t start, uint64_t count);
uint8_t hex_getByte(const hexdata *h, uint64_t addr); // ENODATA when absent
std::vector<uint8_t> hex_getBytes(const hexdata *h, uint64_t start, uint64_t count);
int hex_isPreserved(const hexdata *h, uint64_t addr);
int hex_anyPreserved(const hexdata *h, uint64_t start, uint64_t count);
uint32_t hex_findByte(const hexdata *h, uint64_t start, uint64_t end);
const void *hex_getNote(const hexdata *h, uint64_t addr);
uint64_t hex_findNoteRange(const hexdata *h, uint64_t start, uint64_t end);

// Read-only row access for hot loops: null when the row was never touched.
const hex_row *hex_getRow(const hexdata *h, uint32_t row);
// Lowest present address >= start, as a full 64-bit value; false when none
// up to hex_hiAddr. Unlike hex_findByte it can tell address 0 from none.
bool hex_nextPresent(const hexdata *h, uint64_t start, uint64_t *found);

// ---- stores -------------------------------------------------------------
int hex_storeByte(hexdata *h, uint64_t addr, uint8_t value);
int hex_forceByte(hexdata *h, uint64_t addr, uint8_t value);
int hex_putByte(hexdata *h, uint64_t addr, uint8_t value, int force);
uint64_t hex_storeBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count);
uint64_t hex_forceBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count);
uint64_t hex_putBytes(hexdata *h, uint64_t start, const uint8_t *bytes, uint64_t count, int force);
int hex_preserveData(hexdata *h, uint64_t start, uint64_t end, int on);
int hex_setNote(hexdata *h, uint64_t start, uint64_t end, const void *note);
int hex_deleteBytes(hexdata *h, uint64_t start, uint64_t count);

// Merges every present byte of src into dst (force adds HEX_FORCED to bytes
// merged into existing rows); 1 if no byte was refused.
int copyRows(hexdata *dst, const hexdata *src, int force);
// The same merge when src is about to be destroyed: rows that dst lacks are
// moved instead of copied. src is left empty.
int hex_mergeFrom(hexdata *dst, hexdata *src, int force);

// Tests only: after n more successful row or note-array allocations, every
// further one fails as if the heap were exhausted; a negative n ends that.
void hex_failAllocationsAfter(long n);
