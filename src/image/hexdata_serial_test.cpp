#include "image/hexdata_serial.h"

#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "image/testutil.h"

namespace {

using namespace testutil;
using i128 = __int128;

struct Slot {
  uint8_t data, attr;
  const void *note;
};

// A naive model of the serial store: addresses in 128 bits, the code as one
// number of 8N bits to which each copy adds the increment's bytes, repeated
// towards the front of a code longer than 4 bytes.
bool modelSerial(std::map<uint64_t, Slot> &mem, std::string &errs, const serialspec &s) {
  auto fail = [&](uint32_t code, uint64_t a = 0, const void *note = nullptr) {
    addError(errs, hex_error{code, hex_strerror(code), a, note, 0, 0, 0, 0});
    return false;
  };
  const size_t n = s.codeBytes.size();
  const i128 step = s.addrInc ? s.addrInc : i128(n), first = s.start;
  const i128 last = first + step * (s.repetitions - 1);
  if (i128(n) > (step < 0 ? -step : step))
    return fail(EOVERLAPS);
  if (std::min(first, last) < 0 || std::max(first, last) + i128(n) - 1 > i128(UINT64_MAX))
    return fail(EBELOWZERO);
  const unsigned __int128 mod = (unsigned __int128)1 << (8 * n);
  unsigned __int128 value = 0, inc = 0;
  for (size_t i = 0; i < n; ++i) {
    value = value << 8 | s.codeBytes[i];
    inc |= (unsigned __int128)((uint32_t(s.codeInc) >> (8 * (i % 4))) & 0xFF) << (8 * i);
  }
  for (uint32_t r = 0; r < s.repetitions; ++r, value = (value + inc) % mod) {
    for (size_t k = 0; k < n; ++k) {
      const uint64_t a = uint64_t(first + step * r + i128(k));
      const uint8_t v = uint8_t(value >> (8 * (n - 1 - k)));
      const bool had = mem.count(a);
      Slot &slot = mem[a];
      if (slot.attr & HEX_PRESERVED)
        return fail(EPRESERVED, a);
      if (had && !s.policy.clobber && slot.data != v)
        return fail(ECLASH, a);
      if (s.policy.clobber && (slot.attr & HEX_FORCED))
        fail(ECLOBBERED, a, slot.note);
      if (!had || s.policy.clobber)
        slot = {v, uint8_t(slot.attr | HEX_PRESENT | (s.policy.clobber ? HEX_FORCED : 0)), nullptr};
      slot.note = s.policy.owner;
    }
  }
  return true;
}

// The engine against the model on seeded random series over random data:
// code lengths 1 to 8 with carries through 00/FF runs, increments up and
// down, intervals up, down, back to back (long series go in as runs) and
// overlapping, starts at both ends of the address space and right at the
// last one that fits, forced and plain stores, preserved bytes.
TEST(HexSerial, MatchesTheModel) {
  for (uint32_t seed = 1; seed <= 500; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    auto pick = [&](std::initializer_list<uint64_t> l) { return *(l.begin() + rng() % l.size()); };
    serialspec s;
    const size_t n = 1 + rng() % 8;
    for (size_t i = 0; i < n; ++i)
      s.codeBytes.push_back(uint8_t(pick({0x00, 0xFF, 0xFE, 0x01, rng()})));
    s.codeInc = int32_t(pick({0, 1, uint64_t(-1), 0x100, 0x01FFFFFF, rng()}));
    const int32_t wide = int32_t(n + rng() % 6);
    s.addrInc = int32_t(pick({0, n, uint64_t(wide), uint64_t(-wide), 1 + rng() % n, uint64_t(INT32_MIN)}));
    s.repetitions = uint32_t(rng() % 4 == 0 ? 600 + rng() % 900 : 1 + rng() % 5);
    const uint64_t step = s.addrInc ? uint64_t(std::abs(int64_t(s.addrInc))) : n;
    const uint64_t travel = step * (s.repetitions - 1);
    const uint64_t edge = s.addrInc < 0 ? travel : UINT64_MAX - travel - (n - 1);
    serialspec_setStart(&s, pick({rng() % 64, 0x10000 + rng() % 256, UINT64_MAX - rng() % 64,
                                  edge - 1 + rng() % 3}));
    store_setClobber(&s.policy, rng() % 2);
    store_setOwner(&s.policy, &ownerA);

    Image h = newImage();
    std::map<uint64_t, Slot> mem;
    for (int k = int(rng() % 3) * int(rng() % 40); k > 0; --k) {
      const uint64_t a = s.start - (s.addrInc < 0 ? travel : 0) - 8 + rng() % (travel + n + 16);
      const uint8_t v = uint8_t(pick({0x00, 0xFF, 0x01, rng()}));
      const uint8_t attr = uint8_t(HEX_PRESENT | pick({0, HEX_FORCED}) | (rng() % 8 ? 0 : HEX_PRESERVED));
      if (mem.count(a))
        continue;
      hex_putByte(h.get(), a, v, attr & HEX_FORCED);
      hex_setNote(h.get(), a, a, &ownerB);
      hex_preserveData(h.get(), a, a, attr & HEX_PRESERVED);
      mem[a] = {v, attr, &ownerB};
    }
    hex_clearErrors();
    std::string errs, model;
    const bool expected = modelSerial(mem, errs, s);
    EXPECT_EQ(hex_serial(h.get(), &s), expected);
    EXPECT_EQ(errors(), errs);
    for (const auto &[a, slot] : mem)
      if (slot.attr & HEX_PRESENT)
        addToken(model, hexText(a) + "=" + slotText(slot.data, slot.attr, slot.note));
    EXPECT_EQ(present(h.get()), model);
  }
}

} // namespace
