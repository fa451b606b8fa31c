#include "image/fill_spec.h"

bool fillspec_setWidth(fillspec *f, uint32_t width) {
  if (record_isNull(f))
    return false;
  if (width < 1 || width > 8)
    return record_refuse(EBADWIDTH);
  f->width = width;
  f->mask = width == 8 ? ~uint64_t(0) : (uint64_t(1) << (8 * width)) - 1;
  return true;
}

bool fillspec_addValue(fillspec *f, uint64_t value) {
  if (record_isNull(f))
    return false;
  if (value & ~f->mask)
    return record_refuse(EWIDEVALUE);
  if (f->increment != 0 && !f->values.empty())
    return record_refuse(EINC);
  f->values.push_back(value);
  return true;
}

bool fillspec_setIncrement(fillspec *f, int32_t inc) {
  if (record_isNull(f))
    return false;
  if (inc != 0 && f->values.size() > 1)
    return record_refuse(EINC);
  f->increment = inc;
  return true;
}

bool fillspec_setMode(fillspec *f, uint32_t mode) {
  if (record_isNull(f))
    return false;
  if (mode > FILL_DATA_ROWS)
    return record_refuse(EBADMODE);
  f->mode = mode;
  return true;
}

bool fillspec_setRowLength(fillspec *f, uint32_t len) {
  if (record_isNull(f))
    return false;
  if (len == 0)
    return record_refuse(EBADWIDTH);
  f->rowLength = len;
  return true;
}
