// Serial record: a code sequence stored at a fixed address, optionally
// repeated at an address interval with the code counted up or down from
// one copy to the next. One per -SERIAL argument; the string store builds
// a one-copy record of its own. A record in the shape of record.h: no
// image, no messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "image/record.h"

struct serialspec {
  std::vector<uint8_t> codeBytes; // stored at increasing addresses, as written
  uint64_t start = 0;             // first address of the first copy
  bool hasStart = false;
  int32_t codeInc = 0;            // added to the code after each copy; 0 = constant
  int32_t addrInc = 0;            // distance between copies; 0 = the code length
  uint32_t repetitions = 1;       // copies, at least 1
  store_policy policy;
};

bool serialspec_appendCode(serialspec *s, const uint8_t *bytes, size_t n);
bool serialspec_setStart(serialspec *s, uint64_t start);
bool serialspec_setCodeInc(serialspec *s, int32_t inc);
bool serialspec_setAddrInc(serialspec *s, int32_t inc);
[[nodiscard]] bool serialspec_setRepts(serialspec *s, uint32_t n); // EARG for 0 copies

// Adds inc to the code taken as one big-endian number (last byte least
// significant), carrying from byte to byte; the carry out of the first byte
// is dropped. Byte i from the end receives byte (i mod 4) of inc, so a code
// longer than 4 bytes sees the increment's bytes repeat towards the front.
void serialspec_addToCode(uint8_t *code, size_t n, int32_t inc);
