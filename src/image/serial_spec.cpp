#include "image/serial_spec.h"

bool serialspec_appendCode(serialspec *s, const uint8_t *bytes, size_t n) {
  if (record_isNull(s))
    return false;
  s->codeBytes.insert(s->codeBytes.end(), bytes, bytes + n);
  return true;
}

bool serialspec_setStart(serialspec *s, uint64_t start) {
  if (record_isNull(s))
    return false;
  s->start = start;
  s->hasStart = true;
  return true;
}

bool serialspec_setCodeInc(serialspec *s, int32_t inc) {
  if (record_isNull(s))
    return false;
  s->codeInc = inc;
  return true;
}

bool serialspec_setAddrInc(serialspec *s, int32_t inc) {
  if (record_isNull(s))
    return false;
  s->addrInc = inc;
  return true;
}

bool serialspec_setRepts(serialspec *s, uint32_t n) {
  if (record_isNull(s))
    return false;
  if (n == 0)
    return record_refuse(EARG);
  s->repetitions = n;
  return true;
}

void serialspec_addToCode(uint8_t *code, size_t n, int32_t inc) {
  const uint32_t u = static_cast<uint32_t>(inc);
  unsigned carry = 0;
  for (size_t i = 0; i < n; ++i) {
    // Intended: the increment's 4 bytes repeat towards the front of a
    // longer code rather than being sign-extended.
    const unsigned add = (u >> (8 * (i % 4))) & 0xFF;
    const unsigned sum = code[n - 1 - i] + add + carry;
    code[n - 1 - i] = static_cast<uint8_t>(sum);
    carry = sum >> 8;
  }
}
