#include "image/find_spec.h"

#include "image/hex_errno.h"

bool findspec_setCode(findspec *s, std::span<const uint8_t> code,
                      const std::vector<uint8_t> *mask) {
  if (code.empty()) {
    hex_setError(ENOCODE);
    return false;
  }
  if (mask && mask->size() != code.size()) {
    hex_setError(EARG);
    return false;
  }
  s->code.assign(code.begin(), code.end());
  if (mask)
    s->mask = *mask;
  else
    s->mask.assign(code.size(), 0xFF);
  return true;
}

bool findspec_setAlignment(findspec *s, uint64_t alignment) {
  if (alignment == 0) {
    hex_setError(EARG);
    return false;
  }
  s->alignment = alignment;
  return true;
}

void findspec_setRange(findspec *s, uint64_t start, uint64_t end) {
  s->start = start;
  s->end = end;
  s->hasStart = s->hasEnd = true;
}
