#include "image/record.h"

bool store_setClobber(store_policy *p, bool on) {
  if (record_isNull(p))
    return false;
  p->clobber = on;
  return true;
}

bool store_setPreserve(store_policy *p, bool on) {
  if (record_isNull(p))
    return false;
  p->preserve = on;
  return true;
}

bool store_setOwner(store_policy *p, const void *owner) {
  if (record_isNull(p))
    return false;
  p->owner = owner;
  return true;
}

bool range_setStart(addr_range *r, uint64_t start) {
  if (record_isNull(r))
    return false;
  if (r->hasEnd && start > r->end)
    return record_refuse(EBADADDR);
  r->start = start;
  r->hasStart = true;
  return true;
}

bool range_setEnd(addr_range *r, uint64_t end) {
  if (record_isNull(r))
    return false;
  if (r->hasStart && end < r->start)
    return record_refuse(EBADADDR);
  r->end = end;
  r->hasEnd = true;
  return true;
}

bool range_set(addr_range *r, uint64_t start, uint64_t end) {
  if (record_isNull(r))
    return false;
  if (start > end)
    return record_refuse(EBADADDR);
  *r = {start, end, true, true};
  return true;
}
