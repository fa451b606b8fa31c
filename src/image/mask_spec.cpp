#include "image/mask_spec.h"

#include "image/hex_errno.h"

namespace {

bool isNull(const maskspec *m) {
  if (m)
    return false;
  hex_setError(ENULL);
  return true;
}

} // namespace

int maskspec_addMask(maskspec *m, uint8_t mask) {
  if (isNull(m))
    return 0;
  m->masks.push_back(mask); // running out of memory ends the run (alert.h)
  return 1;
}

int maskspec_setStart(maskspec *m, uint64_t start) {
  if (isNull(m))
    return 0;
  if (m->hasEnd && start > m->end) {
    hex_setError(EBADADDR);
    return 0;
  }
  m->start = start;
  m->hasStart = true;
  return 1;
}

int maskspec_setEnd(maskspec *m, uint64_t end) {
  if (isNull(m))
    return 0;
  if (m->hasStart && end < m->start) {
    hex_setError(EBADADDR);
    return 0;
  }
  m->end = end;
  m->hasEnd = true;
  return 1;
}

int maskspec_setPreserveData(maskspec *m, bool on) {
  if (isNull(m))
    return 0;
  m->willPreserveData = on;
  return 1;
}

uint32_t maskspec_countMasks(const maskspec *m) {
  return isNull(m) ? 0 : static_cast<uint32_t>(m->masks.size());
}

uint8_t maskspec_getMask(const maskspec *m, uint32_t i) {
  if (isNull(m))
    return 0;
  if (i >= m->masks.size()) {
    hex_setError(ENOMASK);
    return 0;
  }
  return m->masks[i];
}

bool maskspec_hasStart(const maskspec *m) { return !isNull(m) && m->hasStart; }
uint64_t maskspec_getStart(const maskspec *m) { return isNull(m) || !m->hasStart ? 0 : m->start; }
bool maskspec_hasEnd(const maskspec *m) { return !isNull(m) && m->hasEnd; }
uint64_t maskspec_getEnd(const maskspec *m) { return isNull(m) || !m->hasEnd ? 0 : m->end; }
bool maskspec_willPreserveData(const maskspec *m) { return !isNull(m) && m->willPreserveData; }
