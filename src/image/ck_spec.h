// Checksum record: what -CK computes (algorithm, range, in-word byte
// reversal, byte skipping, offset, polynomial, XOR) and how the result is
// stored (destination, width, byte order, trailing code bytes after every
// codeBase result bytes, clobber, preserve, owner). A plain value owned by
// its argument record. Setters refuse bad values with an error code (the
// value is then left unchanged); a result that overlaps the summed range is
// recorded as CKSPEC_EOVERLAPS but kept, since the user may mean it.
#pragma once

#include <cstdint>
#include <vector>

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
  uint64_t rangeStart = 0;
  uint64_t rangeEnd = 0;
  bool hasRange = false;
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
  bool clobber = false;
  bool preserveData = false;
  bool hasOwner = false;
  const void *owner = nullptr;
};

// Starts s afresh for an algorithm: default (widest) width, code base 1,
// one skip byte. EUNKNOWNTYPE and false for an unknown algorithm.
[[nodiscard]] bool ckspec_create(ckspec *s, int32_t algorithm);
bool ckspec_isKnownAlgorithm(int32_t algorithm);
bool ckspec_isCRC(int32_t algorithm);      // 5 and -5
bool ckspec_isAdditive(int32_t algorithm); // 1..4 and -1..-4
uint32_t ckspec_getMinWidth(int32_t algorithm); // 0 for an unknown algorithm
uint32_t ckspec_getMaxWidth(int32_t algorithm);

// Accessors; ENULL and 0/false for a null record.
int32_t ckspec_getAlgorithm(const ckspec *s);
uint64_t ckspec_getRangeStart(const ckspec *s);
uint64_t ckspec_getRangeEnd(const ckspec *s);
bool ckspec_hasRange(const ckspec *s);
uint64_t ckspec_getResultDest(const ckspec *s);
bool ckspec_hasResultDest(const ckspec *s);
uint32_t ckspec_getResultWidth(const ckspec *s);
bool ckspec_hasBigEndianResult(const ckspec *s);
uint32_t ckspec_getSkipWordWidth(const ckspec *s);
uint32_t ckspec_getSkipBytes(const ckspec *s);
uint64_t ckspec_getOffset(const ckspec *s);
uint64_t ckspec_getXor(const ckspec *s);
uint32_t ckspec_countCodeBytes(const ckspec *s);
uint8_t ckspec_getCodeByte(const ckspec *s, uint32_t i); // ENOCODE and 0 past the end
uint32_t ckspec_getCodeBase(const ckspec *s);
uint64_t ckspec_getPoly(const ckspec *s);
uint32_t ckspec_getRevWordWidth(const ckspec *s);
bool ckspec_canClobber(const ckspec *s);
bool ckspec_willPreserveData(const ckspec *s);
const void *ckspec_getOwner(const ckspec *s); // null when none
// Result bytes plus one code sequence after every codeBase of them.
uint64_t ckspec_getTotalResultBytes(const ckspec *s);
// Whether addr falls in the last skipBytes bytes of its skip word (words
// aligned to multiples of skipWordWidth). EBADSKIP and false when the
// skip bytes would cover the whole word.
bool ckspec_isSkipped(const ckspec *s, uint64_t addr);

// Setters; ENULL for a null record. Those marked "overlap" record
// CKSPEC_EOVERLAPS, and still store, when the first or last stored result
// byte then falls inside the range.
bool ckspec_setRange(ckspec *s, uint64_t start, uint64_t end); // EBADADDR; overlap
bool ckspec_setResultDest(ckspec *s, uint64_t dest);           // overlap
bool ckspec_setResultWidth(ckspec *s, uint32_t width);         // EARG, EBADCODEBASE; overlap
bool ckspec_setCodeBase(ckspec *s, uint32_t n);                // EARG, EBADCODEBASE; overlap
bool ckspec_addCodeByte(ckspec *s, uint8_t b);                 // overlap
bool ckspec_setSkipWordWidth(ckspec *s, uint32_t width);       // EARG for 1
bool ckspec_setSkipBytes(ckspec *s, uint32_t n);               // EARG for 0
bool ckspec_setBigEndianResult(ckspec *s, bool on);
bool ckspec_setOffset(ckspec *s, uint64_t offset);
bool ckspec_setXor(ckspec *s, uint64_t value);
bool ckspec_setPoly(ckspec *s, uint64_t poly);
bool ckspec_setRevWordWidth(ckspec *s, uint32_t width);
bool ckspec_setClobber(ckspec *s, bool on);
bool ckspec_setPreserveData(ckspec *s, bool on);
bool ckspec_setOwner(ckspec *s, const void *owner);
