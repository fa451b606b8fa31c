#include "image/find_spec.h"

bool findspec_setCode(findspec *s, std::span<const uint8_t> code,
                      const std::vector<uint8_t> *mask) {
  if (record_isNull(s))
    return false;
  if (code.empty())
    return record_refuse(ENOCODE);
  if (mask && mask->size() != code.size())
    return record_refuse(EARG);
  s->code.assign(code.begin(), code.end());
  if (mask)
    s->mask = *mask;
  else
    s->mask.assign(code.size(), 0xFF);
  return true;
}

bool findspec_setAlignment(findspec *s, uint64_t alignment) {
  if (record_isNull(s))
    return false;
  if (alignment == 0)
    return record_refuse(EARG);
  s->alignment = alignment;
  return true;
}

bool findspec_setOverlap(findspec *s, bool on) {
  if (record_isNull(s))
    return false;
  s->overlap = on;
  return true;
}

bool findspec_setRange(findspec *s, uint64_t start, uint64_t end) {
  if (record_isNull(s))
    return false;
  s->range = {start, end, true, true};
  return true;
}
