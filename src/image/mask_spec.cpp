#include "image/mask_spec.h"

bool maskspec_addMask(maskspec *m, uint8_t mask) {
  if (record_isNull(m))
    return false;
  m->masks.push_back(mask); // running out of memory ends the run (alert.h)
  return true;
}

bool maskspec_setPreserve(maskspec *m, bool on) {
  if (record_isNull(m))
    return false;
  m->preserve = on;
  return true;
}
