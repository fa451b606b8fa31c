#include "image/string_spec.h"

#include "image/hex_errno.h"

bool stringspec_appendCode(stringspec *s, const uint8_t *bytes, size_t n) {
  if (s->packed) {
    hex_setError(ENOCODE);
    return false;
  }
  s->codeBytes.insert(s->codeBytes.end(), bytes, bytes + n);
  return true;
}

size_t stringspec_countCodeBytes(const stringspec *s) { return s->codeBytes.size(); }

bool stringspec_setString(stringspec *s, const char *text) {
  if (!text) {
    hex_setError(ENULL);
    return false;
  }
  s->string = text;
  return true;
}

const std::string &stringspec_getString(const stringspec *s) { return s->string; }

void stringspec_setStart(stringspec *s, uint64_t start) {
  s->start = start;
  s->hasStart = true;
}

bool stringspec_hasStart(const stringspec *s) { return s->hasStart; }

uint64_t stringspec_getStart(const stringspec *s) {
  if (!s->hasStart) {
    hex_setError(ENOSTART);
    return 0;
  }
  return s->start;
}

void stringspec_setClobber(stringspec *s, bool on) { s->clobber = on; }
bool stringspec_canClobber(const stringspec *s) { return s->clobber; }

bool stringspec_setPacked(stringspec *s, bool on) {
  if (on && !s->codeBytes.empty()) {
    hex_setError(ENOCODE);
    return false;
  }
  s->packed = on;
  return true;
}

bool stringspec_isPacked(const stringspec *s) { return s->packed; }
void stringspec_setPreserveData(stringspec *s, bool on) { s->preserveData = on; }
bool stringspec_willPreserveData(const stringspec *s) { return s->preserveData; }

void stringspec_setOwner(stringspec *s, const void *owner) {
  s->owner = owner;
  s->hasOwner = true;
}

bool stringspec_hasOwner(const stringspec *s) { return s->hasOwner; }
const void *stringspec_getOwner(const stringspec *s) { return s->owner; }

uint64_t stringspec_getLength(const stringspec *s) {
  const uint64_t chars = s->string.size() + 1; // the NUL included
  if (s->packed)
    return (chars + 1) & ~uint64_t(1);
  return chars * (s->codeBytes.size() + 1);
}

bool stringspec_isTrailingCell(const stringspec *s, uint64_t offset) {
  return !s->packed && offset % (s->codeBytes.size() + 1) != 0;
}

std::vector<uint8_t> stringspec_bytes(const stringspec *s) {
  const std::string &t = s->string;
  const size_t chars = t.size() + 1; // t.c_str()[t.size()] is the NUL
  std::vector<uint8_t> out;
  out.reserve(stringspec_getLength(s));
  if (!s->packed) {
    for (size_t i = 0; i < chars; ++i) {
      out.push_back(static_cast<uint8_t>(t.c_str()[i]));
      out.insert(out.end(), s->codeBytes.begin(), s->codeBytes.end());
    }
    return out;
  }
  for (size_t i = 0; i < chars; i += 2) {
    unsigned w = (static_cast<unsigned char>(t.c_str()[i]) & 0x7Fu) << 7;
    if (i + 1 < chars)
      w |= static_cast<unsigned char>(t.c_str()[i + 1]) & 0x7Fu;
    out.push_back(static_cast<uint8_t>(w));
    out.push_back(static_cast<uint8_t>(w >> 8));
  }
  return out;
}
