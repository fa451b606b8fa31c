#include "image/ck_spec.h"


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

bool inRange(const ckspec *s, uint64_t a) { return a >= s->range.start && a <= s->range.end; }

// Only the first and last stored byte are tested: a result that straddles
// the whole range is not reported.
void checkOverlap(const ckspec *s) {
  if (!s->range.hasStart || !s->hasResultDest)
    return;
  // A result that runs past the top is refused when it is stored; it does
  // not wrap round into a range at the bottom here either.
  const uint64_t tail = ckspec_getTotalResultBytes(s) - 1;
  const uint64_t last = tail > UINT64_MAX - s->resultDest ? UINT64_MAX : s->resultDest + tail;
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
  if (record_isNull(s))
    return false;
  if (!ckspec_isKnownAlgorithm(algorithm))
    return record_refuse(EUNKNOWNTYPE);
  *s = ckspec{};
  s->algorithm = algorithm;
  s->resultWidth = ckspec_getMaxWidth(algorithm);
  return true;
}

uint64_t ckspec_getTotalResultBytes(const ckspec *s) {
  if (record_isNull(s))
    return 0;
  const uint64_t groups = s->codeBase ? s->resultWidth / s->codeBase : 0;
  return s->resultWidth + uint64_t(s->codeBytes.size()) * groups;
}

trail_layout ckspec_trailLayout(const ckspec *s) {
  if (record_isNull(s) || s->codeBytes.empty())
    return {};
  return {s->codeBase, uint32_t(s->codeBase + s->codeBytes.size())};
}

bool ckspec_setRange(ckspec *s, uint64_t start, uint64_t end) {
  if (record_isNull(s))
    return false;
  if (!range_set(&s->range, start, end))
    return false;
  checkOverlap(s);
  return true;
}

bool ckspec_setResultDest(ckspec *s, uint64_t dest) {
  if (record_isNull(s))
    return false;
  s->resultDest = dest;
  s->hasResultDest = true;
  checkOverlap(s);
  return true;
}

bool ckspec_setResultWidth(ckspec *s, uint32_t width) {
  if (record_isNull(s))
    return false;
  const widths w = widthsOf(s->algorithm);
  if (width < w.min || width > w.max)
    return record_refuse(EARG);
  if (width < s->codeBase || width % s->codeBase != 0)
    return record_refuse(EBADCODEBASE);
  s->resultWidth = width;
  checkOverlap(s);
  return true;
}

bool ckspec_setCodeBase(ckspec *s, uint32_t n) {
  if (record_isNull(s))
    return false;
  if (n == 0)
    return record_refuse(EARG);
  if (n > s->resultWidth || s->resultWidth % n != 0)
    return record_refuse(EBADCODEBASE);
  s->codeBase = n;
  checkOverlap(s);
  return true;
}

bool ckspec_addCodeByte(ckspec *s, uint8_t b) {
  if (record_isNull(s))
    return false;
  s->codeBytes.push_back(b);
  checkOverlap(s);
  return true;
}

bool ckspec_setSkipWordWidth(ckspec *s, uint32_t width) {
  if (record_isNull(s))
    return false;
  if (width == 1)
    return record_refuse(EARG);
  s->skipWordWidth = width;
  return true;
}

bool ckspec_setSkipBytes(ckspec *s, uint32_t n) {
  if (record_isNull(s))
    return false;
  if (n == 0)
    return record_refuse(EARG);
  s->skipBytes = n;
  return true;
}

#define CK_SET(name, type, field)                                                                  \
  bool name(ckspec *s, type v) {                                                                   \
    if (record_isNull(s))                                                                          \
      return false;                                                                                \
    s->field = v;                                                                                  \
    return true;                                                                                   \
  }
CK_SET(ckspec_setBigEndianResult, bool, bigEndianResult)
CK_SET(ckspec_setOffset, uint64_t, offset)
CK_SET(ckspec_setXor, uint64_t, xorValue)
CK_SET(ckspec_setPoly, uint64_t, poly)
CK_SET(ckspec_setRevWordWidth, uint32_t, revWordWidth)
#undef CK_SET
