// Mask record: the mask bytes of one -MASK in the order written and
// the range they are ANDed over. A plain record with accessors; refusals
// are recorded in the error list (hex_errno.h). No image, no messages.
#pragma once

#include <cstdint>
#include <vector>

struct maskspec {
  std::vector<uint8_t> masks;
  uint64_t start = 0;
  bool hasStart = false;
  uint64_t end = 0; // inclusive
  bool hasEnd = false;
  bool willPreserveData = false; // mark every masked byte preserved
};

// Setters return 1, or 0 with the code recorded; a null record gives ENULL.
int maskspec_addMask(maskspec *m, uint8_t mask);
[[nodiscard]] int maskspec_setStart(maskspec *m, uint64_t start); // EBADADDR above the end
[[nodiscard]] int maskspec_setEnd(maskspec *m, uint64_t end);     // EBADADDR below the start
int maskspec_setPreserveData(maskspec *m, bool on);

uint32_t maskspec_countMasks(const maskspec *m);
uint8_t maskspec_getMask(const maskspec *m, uint32_t i); // ENOMASK past the count
bool maskspec_hasStart(const maskspec *m);
uint64_t maskspec_getStart(const maskspec *m); // 0 when not set
bool maskspec_hasEnd(const maskspec *m);
uint64_t maskspec_getEnd(const maskspec *m); // 0 when not set
bool maskspec_willPreserveData(const maskspec *m);
