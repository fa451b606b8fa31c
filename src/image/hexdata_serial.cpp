// The serial engine: copies of a code sequence stored at their addresses,
// back-to-back copies gathered into long runs.
#include "image/hexdata_serial.h"

#include <algorithm>
#include <vector>

#include "image/hex_errno.h"

namespace {

// Back-to-back copies are gathered into runs of about this many bytes, so
// that a long series costs one store per run instead of one per copy.
constexpr size_t kRunBytes = 4096;

// Stores the n bytes of one or more copies at a..a+n-1 (which the caller has checked fit the
// address space), stopping at the first refused byte; then notes and
// preserves what was stored.
bool storeCopies(hexdata *h, const serialspec *s, uint64_t a, const uint8_t *bytes, uint64_t n) {
  uint64_t stored = n;
  bool ok = true;
  if (!hex_hasAnyByte(h, a, n)) {
    // Nothing there to refuse: the run goes in whole.
    stored = hex_putBytes(h, a, bytes, n, s->policy.clobber);
    ok = stored == n;
  } else {
    for (uint64_t i = 0; i < n; ++i) {
      if (!hex_putByte(h, a + i, bytes[i], s->policy.clobber)) {
        stored = i;
        ok = false;
        break;
      }
    }
  }
  if (stored == 0)
    return ok;
  if (s->policy.preserve)
    hex_preserveData(h, a, a + stored - 1, 1);
  if (s->policy.owner && !hex_setNote(h, a, a + stored - 1, s->policy.owner))
    return false;
  return ok;
}

// The rows the copies would add to the image. Copies less than a row apart
// touch every row between the first and the last; copies a row or more
// apart touch a row each at least, so more of them than the budget and the
// image's own rows together can only be refused, and fewer are counted one
// by one.
uint64_t rowsToAdd(const hexdata *h, uint64_t lowest, uint64_t n, uint64_t step, uint32_t copies) {
  const uint64_t last = lowest + step * (copies - 1) + (n - 1); // checked to fit
  if (step < 256)
    return hex_rowOf(last) - hex_rowOf(lowest) + 1 - hex_rowsHeld(h, lowest, last);
  const uint64_t held = hex_rowsHeld(h, 0, UINT64_MAX);
  if (copies > HEX_ROW_BUDGET + held)
    return copies - held;
  uint64_t added = 0, counted = 0; // rows counted so far: below `counted`
  for (uint64_t k = 0; k < copies; ++k) {
    const uint64_t a = lowest + step * k;
    for (uint64_t row = std::max(hex_rowOf(a), counted); row <= hex_rowOf(a + n - 1); ++row)
      added += hex_rowsHeld(h, row << 8, row << 8 | 0xFF) == 0;
    counted = hex_rowOf(a + n - 1) + 1;
  }
  return added;
}

} // namespace

bool hex_serial(hexdata *h, const serialspec *s) {
  if (!h || !s) {
    hex_setError(ENULL);
    return false;
  }
  if (!s->hasStart) {
    hex_setError(ENOSTART);
    return false;
  }
  const uint64_t n = s->codeBytes.size();
  if (n == 0) {
    hex_setError(ENOCODE);
    return false;
  }
  const bool down = s->addrInc < 0;
  const uint64_t step = s->addrInc == 0 ? n
                        : down          ? uint64_t(-int64_t(s->addrInc))
                                        : uint64_t(s->addrInc);
  if (n > step) {
    hex_setError(EOVERLAPS);
    return false;
  }
  // The distance from the first copy to the last, and the first copy's end,
  // must stay inside the address space: an address past the top would wrap
  // round to the bottom, so it is refused like one below zero.
  uint64_t travel = 0;
  const bool tooFar = __builtin_mul_overflow(step, uint64_t(s->repetitions - 1), &travel);
  const uint64_t room = UINT64_MAX - s->start; // bytes above the start
  if (tooFar || (down ? s->start < travel || n - 1 > room : travel > room || n - 1 > room - travel)) {
    hex_setError(EBELOWZERO);
    return false;
  }

  const uint64_t lowest = down ? s->start - travel : s->start;
  if (!hex_takeRows(h, rowsToAdd(h, lowest, n, step, s->repetitions), s->repetitions))
    return false;

  std::vector<uint8_t> code(s->codeBytes);
  if (!down && step == n) {
    std::vector<uint8_t> run;
    run.reserve(kRunBytes + n);
    uint64_t at = s->start;
    for (uint32_t r = 0; r < s->repetitions; ++r) {
      run.insert(run.end(), code.begin(), code.end());
      if (s->codeInc)
        serialspec_addToCode(code.data(), n, s->codeInc);
      if (run.size() >= kRunBytes || r + 1 == s->repetitions) {
        if (!storeCopies(h, s, at, run.data(), run.size()))
          return false;
        if (r + 1 < s->repetitions)
          at += run.size();
        run.clear();
      }
    }
    return true;
  }
  uint64_t at = s->start;
  for (uint32_t r = 0; r < s->repetitions; ++r) {
    if (!storeCopies(h, s, at, code.data(), n))
      return false;
    if (r + 1 == s->repetitions)
      break;
    at = down ? at - step : at + step;
    if (s->codeInc)
      serialspec_addToCode(code.data(), n, s->codeInc);
  }
  return true;
}
