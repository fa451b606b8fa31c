#include "image/fill_spec.h"

#include "image/hex_errno.h"

namespace {

bool isNull(const fillspec *f) {
  if (f)
    return false;
  hex_setError(ENULL);
  return true;
}

int refuse(uint32_t code) {
  hex_setError(code);
  return 0;
}

} // namespace

int fillspec_setWidth(fillspec *f, uint32_t width) {
  if (isNull(f))
    return 0;
  if (width < 1 || width > 8)
    return refuse(EBADWIDTH);
  f->width = width;
  f->mask = width == 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * width)) - 1;
  return 1;
}

int fillspec_addValue(fillspec *f, uint64_t value) {
  if (isNull(f))
    return 0;
  if (value & ~f->mask)
    return refuse(EWIDEVALUE);
  if (f->increment != 0 && !f->values.empty())
    return refuse(EINC);
  f->values.push_back(value);
  return 1;
}

int fillspec_setIncrement(fillspec *f, int32_t inc) {
  if (isNull(f))
    return 0;
  if (inc != 0 && f->values.size() > 1)
    return refuse(EINC);
  f->increment = inc;
  return 1;
}

int fillspec_setMode(fillspec *f, uint32_t mode) {
  if (isNull(f))
    return 0;
  if (mode > FILL_DATA_ROWS)
    return refuse(EBADMODE);
  f->mode = mode;
  return 1;
}

int fillspec_setStart(fillspec *f, uint64_t start) {
  if (isNull(f))
    return 0;
  if (f->hasEnd && start > f->end)
    return refuse(EBADADDR);
  f->start = start;
  f->hasStart = true;
  return 1;
}

int fillspec_setEnd(fillspec *f, uint64_t end) {
  if (isNull(f))
    return 0;
  if (f->hasStart && end < f->start)
    return refuse(EBADADDR);
  f->end = end;
  f->hasEnd = true;
  return 1;
}

int fillspec_setRowLength(fillspec *f, uint32_t len) {
  if (isNull(f))
    return 0;
  if (len == 0)
    return refuse(EBADWIDTH);
  f->rowLength = len;
  return 1;
}

int fillspec_setPreserveData(fillspec *f, bool on) {
  if (isNull(f))
    return 0;
  f->preserveData = on;
  return 1;
}

int fillspec_setOwner(fillspec *f, const void *owner) {
  if (isNull(f))
    return 0;
  f->owner = owner;
  f->hasOwner = true;
  return 1;
}

uint32_t fillspec_getWidth(const fillspec *f) { return isNull(f) ? 0 : f->width; }
uint64_t fillspec_getMask(const fillspec *f) { return isNull(f) ? 0 : f->mask; }
uint32_t fillspec_countValues(const fillspec *f) {
  return isNull(f) ? 0 : static_cast<uint32_t>(f->values.size());
}

uint64_t fillspec_getValue(const fillspec *f, uint32_t i) {
  if (isNull(f))
    return 0;
  if (i >= f->values.size()) {
    hex_setError(ENOVALUE);
    return 0;
  }
  return f->values[i];
}

int32_t fillspec_getIncrement(const fillspec *f) { return isNull(f) ? 0 : f->increment; }
int fillspec_getMode(const fillspec *f) { return isNull(f) ? -1 : static_cast<int>(f->mode); }
bool fillspec_hasStart(const fillspec *f) { return !isNull(f) && f->hasStart; }
uint64_t fillspec_getStart(const fillspec *f) { return isNull(f) || !f->hasStart ? 0 : f->start; }
bool fillspec_hasEnd(const fillspec *f) { return !isNull(f) && f->hasEnd; }
uint64_t fillspec_getEnd(const fillspec *f) { return isNull(f) || !f->hasEnd ? 0 : f->end; }
bool fillspec_willPreserveData(const fillspec *f) { return !isNull(f) && f->preserveData; }
bool fillspec_hasOwner(const fillspec *f) { return !isNull(f) && f->hasOwner; }
const void *fillspec_getOwner(const fillspec *f) { return isNull(f) ? nullptr : f->owner; }
uint32_t fillspec_getRowLength(const fillspec *f) { return isNull(f) ? 0 : f->rowLength; }
