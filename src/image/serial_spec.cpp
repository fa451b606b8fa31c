#include "image/serial_spec.h"

#include "image/hex_errno.h"

void serialspec_appendCode(serialspec *s, const uint8_t *bytes, size_t n) {
  s->codeBytes.insert(s->codeBytes.end(), bytes, bytes + n);
}

size_t serialspec_countCodeBytes(const serialspec *s) { return s->codeBytes.size(); }

uint8_t serialspec_getCodeByte(const serialspec *s, size_t index) {
  if (index >= s->codeBytes.size()) {
    hex_setError(ENOCODE);
    return 0;
  }
  return s->codeBytes[index];
}

void serialspec_setStart(serialspec *s, uint64_t start) {
  s->start = start;
  s->hasStart = true;
}

bool serialspec_hasStart(const serialspec *s) { return s->hasStart; }

uint64_t serialspec_getStart(const serialspec *s) {
  if (!s->hasStart) {
    hex_setError(ENOSTART);
    return 0;
  }
  return s->start;
}

void serialspec_setCodeInc(serialspec *s, int32_t inc) { s->codeInc = inc; }
int32_t serialspec_getCodeInc(const serialspec *s) { return s->codeInc; }
void serialspec_setAddrInc(serialspec *s, int32_t inc) { s->addrInc = inc; }
int32_t serialspec_getAddrInc(const serialspec *s) { return s->addrInc; }

bool serialspec_setRepts(serialspec *s, uint32_t n) {
  if (n == 0) {
    hex_setError(EARG);
    return false;
  }
  s->repetitions = n;
  return true;
}

uint32_t serialspec_getRepts(const serialspec *s) { return s->repetitions; }

void serialspec_setClobber(serialspec *s, bool on) { s->clobber = on; }
bool serialspec_canClobber(const serialspec *s) { return s->clobber; }
void serialspec_setPreserveData(serialspec *s, bool on) { s->preserveData = on; }
bool serialspec_willPreserveData(const serialspec *s) { return s->preserveData; }

void serialspec_setOwner(serialspec *s, const void *owner) {
  s->owner = owner;
  s->hasOwner = true;
}

bool serialspec_hasOwner(const serialspec *s) { return s->hasOwner; }
const void *serialspec_getOwner(const serialspec *s) { return s->owner; }

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
