// The serial engine: copies of a code sequence stored at their addresses,
// back-to-back copies gathered into long runs.
#include "image/hexdata_serial.h"

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
