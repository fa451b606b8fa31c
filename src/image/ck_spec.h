// Checksum record: what -CK computes (algorithm, range, in-word byte
// reversal, byte skipping, offset, polynomial, XOR) and how the result is
// stored (destination, width, byte order, trailing code bytes after every
// codeBase result bytes, store policy). A record in the shape of record.h,
// owned by its argument record, with one exception to the shape: a result
// that overlaps the summed range is recorded as CKSPEC_EOVERLAPS but kept,
// since the user may mean it.
#pragma once

#include <cstdint>
#include <vector>

#include "image/record.h"

// Algorithm numbers: 1..4 additive with 1- to 4-byte words (negative:
// subtractive), 5 CRC most significant bit first, -5 reflected CRC,
// 7 Fletcher-8, 8 Fletcher-16, 10 SHA-256, 11 SHA-1.
enum : int32_t {
  CK_CRC = 5,
  CK_REFCRC = -5,
  CK_FLETCHER8 = 7,
  CK_FLETCHER16 = 8,
  CK_SHA256 = 10,
  CK_SHA1 = 11,
};

struct ckspec {
  int32_t algorithm = 0;
  addr_range range; // both ends or neither
  uint64_t resultDest = 0;
  bool hasResultDest = false;
  uint32_t resultWidth = 0; // bytes, trailing codes excluded
  bool bigEndianResult = false;
  uint32_t skipWordWidth = 0; // 0: no skipping
  uint32_t skipBytes = 1;
  uint64_t offset = 0;
  uint64_t xorValue = 0;
  std::vector<uint8_t> codeBytes;
  uint32_t codeBase = 1;
  uint64_t poly = 0;         // 0: not given
  uint32_t revWordWidth = 0; // 0: no reversal
  store_policy policy;
};

// Starts s afresh for an algorithm: default (widest) width, code base 1,
// one skip byte. EUNKNOWNTYPE for an unknown algorithm.
[[nodiscard]] bool ckspec_create(ckspec *s, int32_t algorithm);
bool ckspec_isKnownAlgorithm(int32_t algorithm);
bool ckspec_isCRC(int32_t algorithm);      // 5 and -5
bool ckspec_isAdditive(int32_t algorithm); // 1..4 and -1..-4
uint32_t ckspec_getMinWidth(int32_t algorithm); // 0 for an unknown algorithm
uint32_t ckspec_getMaxWidth(int32_t algorithm);
// Result bytes plus one code sequence after every codeBase of them.
uint64_t ckspec_getTotalResultBytes(const ckspec *s);
// Where the trailing codes sit among the stored result bytes.
trail_layout ckspec_trailLayout(const ckspec *s);

// Setters. Those marked "overlap" record CKSPEC_EOVERLAPS, and still store,
// when the first or last stored result byte then falls inside the range.
[[nodiscard]] bool ckspec_setRange(ckspec *s, uint64_t start, uint64_t end); // EBADADDR; overlap
bool ckspec_setResultDest(ckspec *s, uint64_t dest);                           // overlap
[[nodiscard]] bool ckspec_setResultWidth(ckspec *s, uint32_t width); // EARG, EBADCODEBASE; overlap
[[nodiscard]] bool ckspec_setCodeBase(ckspec *s, uint32_t n);        // EARG, EBADCODEBASE; overlap
bool ckspec_addCodeByte(ckspec *s, uint8_t b);                       // overlap
[[nodiscard]] bool ckspec_setSkipWordWidth(ckspec *s, uint32_t width); // EARG for 1
[[nodiscard]] bool ckspec_setSkipBytes(ckspec *s, uint32_t n);         // EARG for 0
bool ckspec_setBigEndianResult(ckspec *s, bool on);
bool ckspec_setOffset(ckspec *s, uint64_t offset);
bool ckspec_setXor(ckspec *s, uint64_t value);
bool ckspec_setPoly(ckspec *s, uint64_t poly);
bool ckspec_setRevWordWidth(ckspec *s, uint32_t width);
