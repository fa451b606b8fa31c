// Fletcher-8 and Fletcher-16 of the checksum engine, a run of zeros taken
// in closed form.
#include "image/hexdata_checksum.h"

#include "common/check.h"
#include "image/checksum_walk.h"

using namespace ckwalk;

namespace {

// ---- Fletcher sums over runs of zeros -------------------------------------------

// Over a run of zeros a Fletcher sum's s1 stays as it is, so its s2 takes
// the step t -> fold(t + d(j)) again and again, fold(x) = (x & M) + (x >> m)
// with M = 2^m - 1, t staying below 2M. A fold keeps t mod M, so after j steps
// t's residue is (t0 + dSum(j)) mod M, dSum(j) being d(0..j-1) mod M; only
// which of its two values (r or r + M) t holds is open. t and t + M step to
// the same value unless r + d(j) ends in m zero bits, a tie, after which they
// are still M apart: so the last step that was no tie decides, else t0
// does. d repeats every `period` steps (0: no known period); ties that come
// round a whole period to the same residue reach back to step 0.
template <class D, class DSum>
uint64_t foldRun(uint64_t t0, uint64_t n, unsigned m, uint64_t period, D d, DSum dSum) {
  const uint64_t M = (uint64_t(1) << m) - 1;
  auto residue = [&](uint64_t j) { return (t0 % M + dSum(j)) % M; };
  bool high = t0 >= M;
  for (uint64_t i = n; i-- > 0;) {
    const uint64_t r = residue(i), x = r + d(i);
    if (x & M) {
      high = (x & M) + (x >> m) >= M;
      break;
    }
    if (period && n - i > period && residue(i + period) == r)
      break;
  }
  return residue(n) + (high ? M : 0);
}

// Steps after which the kept addresses of whole reversal words repeat, in
// stretches of `stretch` walk addresses; 0 when too many to matter.
uint64_t keptPeriod(const ckspec *s, uint64_t stretch) {
  if (!s->skipWordWidth)
    return 1;
  const uint64_t R = wordWidth(s), S = s->skipWordWidth, g = std::gcd(R, S);
  if (R / g > (uint64_t(1) << 40) / S)
    return 0;
  const uint64_t P = R / g * S;
  return P / std::gcd(P, stretch);
}

} // namespace

uint64_t checksumFletcher8(const hexdata *h, const ckspec *s) {
  undef_log undef;
  // Intended: the count is taken in 32 bits.
  const uint32_t count = uint32_t(s->range.end - s->range.start + 1);
  const uint64_t start = s->range.start;
  auto fold = [](uint64_t v) { return (v & 0xFF) + (v >> 8); };
  uint64_t s1 = 0xFF, s2 = 0xFF;
  if (count > 0) {
    const uint64_t last = start + count - 1;
    // Both sums fold after every 20 walk addresses and after the last.
    auto folds = [&](uint64_t a) { return (a - start) % 20 == 19 || a == last; };
    stream_reader in{s, {h}, &undef};
    auto bytes = [&](uint64_t a0, uint64_t a1) {
      for (uint64_t a = a0;; ++a) {
        uint8_t b;
        if (in.at(a, &b)) {
          s1 += b;
          s2 += s1;
        }
        if (folds(a)) {
          s1 = fold(s1);
          s2 = fold(s2);
        }
        if (a == a1)
          return;
      }
    };
    // Zeros add s1 to s2 once per kept address: up to the next fold, then
    // in whole stretches of 20, then the rest. s1 settles after two folds.
    auto zeros = [&](uint64_t a0, uint64_t a1) {
      uint64_t a = a0;
      auto take = [&](uint64_t n) {
        s2 += keptWalk(s, a, a + n - 1, -1) * s1;
        a += n;
        if (folds(a - 1)) {
          s1 = fold(s1);
          s2 = fold(s2);
        }
      };
      if (const uint64_t head = std::min(a1 - a0 + 1, (20 - (a0 - start) % 20) % 20))
        take(head);
      uint64_t stretches = (a1 - a + 1) / 20;
      for (int k = 0; k < 2 && stretches; ++k, --stretches)
        take(20);
      if (stretches) {
        const uint64_t base = a, v = s1;
        s2 = foldRun(
            s2, stretches, 8, keptPeriod(s, 20),
            [&](uint64_t j) { return keptWalk(s, base + 20 * j, base + 20 * j + 19, -1) * v; },
            [&](uint64_t j) { return j ? keptWalk(s, base, base + 20 * j - 1, -1) % 255 * v : 0; });
        a += 20 * stretches;
      }
      if (a1 - a + 1)
        take(a1 - a + 1);
    };
    walkRuns(h, s, last, &undef, bytes, zeros);
  }
  s1 = fold(s1);
  s2 = fold(s2);
  undef.record(false);
  return (s2 << 8) | s1;
}

uint64_t checksumFletcher16(const hexdata *h, const ckspec *s) {
  undef_log undef;
  stream_reader in{s, {h}, &undef};
  uint64_t s1 = 0, s2 = 0;
  uint64_t words = 0;
  auto fold = [&] {
    s1 = (s1 & 0xFFFF) + ((s1 >> 16) & 0xFFFF);
    s2 = (s2 & 0xFFFF) + ((s2 >> 16) & 0xFFFF);
  };
  auto bytes = [&](uint64_t a0, uint64_t a1) {
    for (uint64_t a = a0;; ++a) {
      uint8_t b;
      if (in.at(a, &b)) {
        // Intended: the byte's half of the word follows the walk address,
        // not the address it was read from.
        s1 += uint64_t(b) << (8 * (a & 1));
        if (a & 1) {
          s2 += s1;
          if (++words == 256) {
            fold();
            words = 0;
          }
        }
      }
      if (a == a1)
        return;
    }
  };
  // Zeros add s1 to s2 once per word they end (a kept odd walk address): up
  // to the next fold, then in blocks of 256 words, then the rest. s1 settles
  // after two folds.
  auto zeros = [&](uint64_t a0, uint64_t a1) {
    uint64_t n = keptWalk(s, a0, a1, 1);
    const uint64_t head = std::min(n, 256 - words);
    s2 += head * s1;
    words += head;
    n -= head;
    if (words == 256) {
      fold();
      words = 0;
    }
    uint64_t blocks = n / 256;
    for (int k = 0; k < 2 && blocks; ++k, --blocks) {
      s2 += 256 * s1;
      fold();
    }
    if (blocks) {
      const uint64_t d = 256 * s1;
      s2 = foldRun(s2, blocks, 16, 1, [d](uint64_t) { return d; },
                   [d](uint64_t j) { return j % 0xFFFF * (d % 0xFFFF); });
    }
    s2 += n % 256 * s1;
    words += n % 256;
  };
  walkRuns(h, s, s->range.end, &undef, bytes, zeros);
  if (words)
    fold();
  undef.record(false);
  return (((s2 & 0xFFFF) + (s2 >> 16)) << 16) | ((s1 + (s1 >> 16)) & 0xFFFF);
}
