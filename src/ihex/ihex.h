// Hex object and Intel HEX codec: a memory image together with the start
// addresses Intel HEX can carry (CS:IP from record type 03, EIP from type
// 05), the writer's record breaks and maximum data record length; the reader
// (ihex_readSpecd) under read settings (range, offset, preserve, clobber,
// note) and the writer (ihex_write) for the four output variants. Neither
// prints: problems are recorded in the error list (hex_errno.h).
#pragma once

#include <cstdint>
#include <cstdio>
#include <set>

#include "ihex/hexdata.h"

struct ihex_readspec {
  uint64_t start = 0;
  bool hasStart = false;
  uint64_t end = 0;
  bool hasEnd = false;
  int32_t offset = 0;
  bool willPreserveData = false;
  bool canBeClobbered = true; // false: forced store ('+' prefix)
  bool hasNote = false;
  const void *note = nullptr;
};

bool ihex_readspec_setStart(ihex_readspec *s, uint64_t value);   // EBADADDR, EBELOWZERO
bool ihex_readspec_setEnd(ihex_readspec *s, uint64_t value);     // EBADADDR
bool ihex_readspec_setOffset(ihex_readspec *s, int32_t value);   // EBELOWZERO
bool ihex_readspec_hasStart(const ihex_readspec *s);
uint64_t ihex_readspec_getStart(const ihex_readspec *s);
bool ihex_readspec_hasEnd(const ihex_readspec *s);
uint64_t ihex_readspec_getEnd(const ihex_readspec *s);
int32_t ihex_readspec_getOffset(const ihex_readspec *s);
bool ihex_readspec_willPreserveData(const ihex_readspec *s);
bool ihex_readspec_canBeClobbered(const ihex_readspec *s);
void ihex_readspec_setPreserveData(ihex_readspec *s, bool on);
void ihex_readspec_setCanBeClobbered(ihex_readspec *s, bool on);
void ihex_readspec_setNote(ihex_readspec *s, const void *note);

struct ihex {
  hexdata *image = nullptr; // owned
  uint64_t CS = 0;
  bool hasCS = false;
  uint64_t IP = 0;
  bool hasIP = false;
  uint32_t EIP = 0;
  bool hasEIP = false;
  std::set<uint64_t> breaks;
  uint32_t maxLength = 16;
};

ihex *ihex_create(); // EMEMORY and null on failure
void ihex_destroy(ihex *x);
hexdata *ihex_getImage(ihex *x);
bool ihex_setMaxLength(ihex *x, uint32_t len); // 0 records EARG
uint32_t ihex_getMaxLength(const ihex *x);
bool ihex_addBreak(ihex *x, uint64_t addr);    // above 0xFFFFFFFFFFFFFFFE records EARG
bool ihex_hasSSA(const ihex *x);
uint32_t ihex_getSSA(const ihex *x);            // CS*65536+IP, 0 when absent
bool ihex_setSSA(ihex *x, uint64_t cs, uint64_t ip); // wider than 16 bits: EARG, cut
void ihex_clearSSA(ihex *x);
bool ihex_hasSLA(const ihex *x);
uint32_t ihex_getSLA(const ihex *x);
void ihex_setSLA(ihex *x, uint32_t eip);
void ihex_clearSLA(ihex *x);

// Reads a whole Intel HEX stream into x (its image is cleared first).
// True when the stream was read without any recorded problem.
bool ihex_readSpecd(ihex *x, FILE *in, const ihex_readspec *spec);
bool ihex_read(ihex *x, FILE *in);

// The addresses a stream placed: how many distinct ones, the lowest and the
// highest (all 0 when none).
struct ihex_extent {
  uint64_t count = 0;
  uint64_t lo = 0;
  uint64_t hi = 0;
};
// ihex_readSpecd for a stream about to be merged into dst with
// ihex_merge(.., x, force) where force = !canBeClobbered. For a plain
// read (no force, no preserve) bytes that the merge would leave unchanged
// (dst holds an equal byte there, not HEX_PRESERVED) are left out of x's
// image, and a later record at such an address is judged as if the byte
// were held. Records, result and merged outcome are those of
// ihex_readSpecd; dst must not change before the merge. *placed gets the
// extent x's image would have had with nothing left out. ENULL for a null
// x, stream or placed; dst may be null (nothing is left out).
bool ihex_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                      ihex_extent *placed);
// Merges src into dst, reconciling start addresses; src may be emptied.
bool ihex_merge(ihex *dst, ihex *src, bool force);

// Writer codes: 0 INHX8M, 1 INHX16, 2 INHX32, 3 INHX032.
enum { IHEX_REASON_8M_RANGE = 0, IHEX_REASON_16_RANGE = 1, IHEX_REASON_32_RANGE = 2,
       IHEX_REASON_NO_SSA = 3, IHEX_REASON_NO_SLA = 4 };
bool checkForWrite(const ihex *x, unsigned code); // records EHEX / EARG
int ihex_write(const ihex *x, FILE *out, unsigned code);
