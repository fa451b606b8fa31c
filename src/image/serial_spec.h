// Serial record: a code sequence stored at a fixed address, optionally
// repeated at an address interval with the code counted up or down from
// one copy to the next. One per -SERIAL argument; the string store builds
// a one-copy record of its own. Plain data and accessors: no image, no
// messages; each refusal is recorded in the error list (hex_errno.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct serialspec {
  std::vector<uint8_t> codeBytes; // stored at increasing addresses, as written
  uint64_t start = 0;             // first address of the first copy
  bool hasStart = false;
  int32_t codeInc = 0;            // added to the code after each copy; 0 = constant
  int32_t addrInc = 0;            // distance between copies; 0 = the code length
  uint32_t repetitions = 1;       // copies, at least 1
  bool clobber = false;           // '+': may overwrite existing data
  bool preserveData = false;      // mark stored bytes preserved
  bool hasOwner = false;
  const void *owner = nullptr;    // note of every stored byte
};

// The code sequence. serialspec_getCodeByte records ENOCODE (and returns 0)
// for an index past the end.
void serialspec_appendCode(serialspec *s, const uint8_t *bytes, size_t n);
size_t serialspec_countCodeBytes(const serialspec *s);
uint8_t serialspec_getCodeByte(const serialspec *s, size_t index);

// Start address: serialspec_getStart records ENOSTART (and returns 0) when
// none was set.
void serialspec_setStart(serialspec *s, uint64_t start);
bool serialspec_hasStart(const serialspec *s);
uint64_t serialspec_getStart(const serialspec *s);

void serialspec_setCodeInc(serialspec *s, int32_t inc);
int32_t serialspec_getCodeInc(const serialspec *s);
void serialspec_setAddrInc(serialspec *s, int32_t inc);
int32_t serialspec_getAddrInc(const serialspec *s);
// 0 copies records EARG and leaves the count as it was.
[[nodiscard]] bool serialspec_setRepts(serialspec *s, uint32_t n);
uint32_t serialspec_getRepts(const serialspec *s);

void serialspec_setClobber(serialspec *s, bool on);
bool serialspec_canClobber(const serialspec *s);
void serialspec_setPreserveData(serialspec *s, bool on);
bool serialspec_willPreserveData(const serialspec *s);
void serialspec_setOwner(serialspec *s, const void *owner);
bool serialspec_hasOwner(const serialspec *s);
const void *serialspec_getOwner(const serialspec *s);

// Adds inc to the code taken as one big-endian number (last byte least
// significant), carrying from byte to byte; the carry out of the first byte
// is dropped. Byte i from the end receives byte (i mod 4) of inc, so a code
// longer than 4 bytes sees the increment's bytes repeat towards the front.
void serialspec_addToCode(uint8_t *code, size_t n, int32_t inc);
