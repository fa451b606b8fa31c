#include "image/ck_spec.h"

#include "image/hex_errno.h"

namespace {

struct widths {
  uint32_t min, max;
};

widths widthsOf(int32_t algorithm) {
  switch (algorithm) {
  case 1: case 2: case 3: case 4:
  case -1: case -2: case -3: case -4:
  case CK_CRC: case CK_REFCRC:
    return {1, 8};
  case CK_FLETCHER8:
    return {2, 2};
  case CK_FLETCHER16:
    return {4, 4};
  case CK_SHA256:
    return {32, 32};
  case CK_SHA1:
    return {20, 20};
  default:
    return {0, 0};
  }
}

bool isNull(const ckspec *s) {
  if (s)
    return false;
  hex_setError(ENULL);
  return true;
}

bool inRange(const ckspec *s, uint64_t a) { return a >= s->rangeStart && a <= s->rangeEnd; }

// Only the first and last stored byte are tested: a result that straddles
// the whole range is not reported.
void checkOverlap(const ckspec *s) {
  if (!s->hasRange || !s->hasResultDest)
    return;
  const uint64_t last = s->resultDest + ckspec_getTotalResultBytes(s) - 1;
  if (inRange(s, s->resultDest) || inRange(s, last))
    hex_setError(CKSPEC_EOVERLAPS);
}

} // namespace

bool ckspec_isKnownAlgorithm(int32_t algorithm) { return widthsOf(algorithm).max != 0; }
bool ckspec_isCRC(int32_t algorithm) { return algorithm == CK_CRC || algorithm == CK_REFCRC; }
bool ckspec_isAdditive(int32_t algorithm) { return algorithm >= -4 && algorithm <= 4 && algorithm != 0; }
uint32_t ckspec_getMinWidth(int32_t algorithm) { return widthsOf(algorithm).min; }
uint32_t ckspec_getMaxWidth(int32_t algorithm) { return widthsOf(algorithm).max; }

bool ckspec_create(ckspec *s, int32_t algorithm) {
  if (isNull(s))
    return false;
  if (!ckspec_isKnownAlgorithm(algorithm)) {
    hex_setError(EUNKNOWNTYPE);
    return false;
  }
  *s = ckspec{};
  s->algorithm = algorithm;
  s->resultWidth = ckspec_getMaxWidth(algorithm);
  return true;
}

#define CK_GET(type, name, expr)                                                                   \
  type name(const ckspec *s) { return isNull(s) ? type{} : type(expr); }
CK_GET(int32_t, ckspec_getAlgorithm, s->algorithm)
CK_GET(uint64_t, ckspec_getRangeStart, s->rangeStart)
CK_GET(uint64_t, ckspec_getRangeEnd, s->rangeEnd)
CK_GET(bool, ckspec_hasRange, s->hasRange)
CK_GET(uint64_t, ckspec_getResultDest, s->resultDest)
CK_GET(bool, ckspec_hasResultDest, s->hasResultDest)
CK_GET(uint32_t, ckspec_getResultWidth, s->resultWidth)
CK_GET(bool, ckspec_hasBigEndianResult, s->bigEndianResult)
CK_GET(uint32_t, ckspec_getSkipWordWidth, s->skipWordWidth)
CK_GET(uint32_t, ckspec_getSkipBytes, s->skipBytes)
CK_GET(uint64_t, ckspec_getOffset, s->offset)
CK_GET(uint64_t, ckspec_getXor, s->xorValue)
CK_GET(uint32_t, ckspec_countCodeBytes, s->codeBytes.size())
CK_GET(uint32_t, ckspec_getCodeBase, s->codeBase)
CK_GET(uint64_t, ckspec_getPoly, s->poly)
CK_GET(uint32_t, ckspec_getRevWordWidth, s->revWordWidth)
CK_GET(bool, ckspec_canClobber, s->clobber)
CK_GET(bool, ckspec_willPreserveData, s->preserveData)
#undef CK_GET

const void *ckspec_getOwner(const ckspec *s) {
  return isNull(s) || !s->hasOwner ? nullptr : s->owner;
}

uint8_t ckspec_getCodeByte(const ckspec *s, uint32_t i) {
  if (isNull(s))
    return 0;
  if (i >= s->codeBytes.size()) {
    hex_setError(ENOCODE);
    return 0;
  }
  return s->codeBytes[i];
}

uint64_t ckspec_getTotalResultBytes(const ckspec *s) {
  if (isNull(s))
    return 0;
  const uint64_t groups = s->codeBase ? s->resultWidth / s->codeBase : 0;
  return s->resultWidth + uint64_t(s->codeBytes.size()) * groups;
}

bool ckspec_isSkipped(const ckspec *s, uint64_t addr) {
  if (isNull(s) || s->skipWordWidth == 0)
    return false;
  if (s->skipWordWidth <= s->skipBytes) {
    hex_setError(EBADSKIP);
    return false;
  }
  return addr % s->skipWordWidth >= s->skipWordWidth - s->skipBytes;
}

bool ckspec_setRange(ckspec *s, uint64_t start, uint64_t end) {
  if (isNull(s))
    return false;
  if (start > end) {
    hex_setError(EBADADDR);
    return false;
  }
  s->rangeStart = start;
  s->rangeEnd = end;
  s->hasRange = true;
  checkOverlap(s);
  return true;
}

bool ckspec_setResultDest(ckspec *s, uint64_t dest) {
  if (isNull(s))
    return false;
  s->resultDest = dest;
  s->hasResultDest = true;
  checkOverlap(s);
  return true;
}

bool ckspec_setResultWidth(ckspec *s, uint32_t width) {
  if (isNull(s))
    return false;
  const widths w = widthsOf(s->algorithm);
  if (width < w.min || width > w.max) {
    hex_setError(EARG);
    return false;
  }
  if (width < s->codeBase || width % s->codeBase != 0) {
    hex_setError(EBADCODEBASE);
    return false;
  }
  s->resultWidth = width;
  checkOverlap(s);
  return true;
}

bool ckspec_setCodeBase(ckspec *s, uint32_t n) {
  if (isNull(s))
    return false;
  if (n == 0) {
    hex_setError(EARG);
    return false;
  }
  if (n > s->resultWidth || s->resultWidth % n != 0) {
    hex_setError(EBADCODEBASE);
    return false;
  }
  s->codeBase = n;
  checkOverlap(s);
  return true;
}

bool ckspec_addCodeByte(ckspec *s, uint8_t b) {
  if (isNull(s))
    return false;
  s->codeBytes.push_back(b);
  checkOverlap(s);
  return true;
}

bool ckspec_setSkipWordWidth(ckspec *s, uint32_t width) {
  if (isNull(s))
    return false;
  if (width == 1) {
    hex_setError(EARG);
    return false;
  }
  s->skipWordWidth = width;
  return true;
}

bool ckspec_setSkipBytes(ckspec *s, uint32_t n) {
  if (isNull(s))
    return false;
  if (n == 0) {
    hex_setError(EARG);
    return false;
  }
  s->skipBytes = n;
  return true;
}

#define CK_SET(name, type, field)                                                                  \
  bool name(ckspec *s, type v) {                                                                   \
    if (isNull(s))                                                                                 \
      return false;                                                                                \
    s->field = v;                                                                                  \
    return true;                                                                                   \
  }
CK_SET(ckspec_setBigEndianResult, bool, bigEndianResult)
CK_SET(ckspec_setOffset, uint64_t, offset)
CK_SET(ckspec_setXor, uint64_t, xorValue)
CK_SET(ckspec_setPoly, uint64_t, poly)
CK_SET(ckspec_setRevWordWidth, uint32_t, revWordWidth)
CK_SET(ckspec_setClobber, bool, clobber)
CK_SET(ckspec_setPreserveData, bool, preserveData)
#undef CK_SET

bool ckspec_setOwner(ckspec *s, const void *owner) {
  if (isNull(s))
    return false;
  s->owner = owner;
  s->hasOwner = owner != nullptr;
  return true;
}
