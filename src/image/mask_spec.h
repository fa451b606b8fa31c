// Mask record: the mask bytes of one -MASK in the order written and the
// range they are ANDed over. A record in the shape of record.h. No image, no
// messages.
#pragma once

#include <cstdint>
#include <vector>

#include "image/record.h"

struct maskspec {
  std::vector<uint8_t> masks;
  addr_range range;      // the end is inclusive
  bool preserve = false; // mark every masked byte preserved
};

bool maskspec_addMask(maskspec *m, uint8_t mask);
bool maskspec_setPreserve(maskspec *m, bool on);
