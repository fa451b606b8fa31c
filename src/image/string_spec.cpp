#include "image/string_spec.h"

bool stringspec_appendCode(stringspec *s, const uint8_t *bytes, size_t n) {
  if (record_isNull(s))
    return false;
  if (s->packed)
    return record_refuse(ENOCODE);
  s->codeBytes.insert(s->codeBytes.end(), bytes, bytes + n);
  return true;
}

bool stringspec_setPacked(stringspec *s, bool on) {
  if (record_isNull(s))
    return false;
  if (on && !s->codeBytes.empty())
    return record_refuse(ENOCODE);
  s->packed = on;
  return true;
}

bool stringspec_setString(stringspec *s, const char *text) {
  if (record_isNull(s))
    return false;
  if (!text)
    return record_refuse(ENULL);
  s->string = text;
  return true;
}

bool stringspec_setStart(stringspec *s, uint64_t start) {
  if (record_isNull(s))
    return false;
  s->start = start;
  s->hasStart = true;
  return true;
}

uint64_t stringspec_getLength(const stringspec *s) {
  const uint64_t chars = s->string.size() + 1; // the NUL included
  if (s->packed)
    return (chars + 1) & ~uint64_t(1);
  return chars * (s->codeBytes.size() + 1);
}

trail_layout stringspec_trailLayout(const stringspec *s) {
  if (record_isNull(s) || s->packed || s->codeBytes.empty())
    return {};
  return {1, uint32_t(s->codeBytes.size() + 1)};
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
