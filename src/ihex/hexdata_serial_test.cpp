#include "ihex/hexdata_serial.h"

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ihex/testutil.h"

namespace {

using namespace testutil;
using u128 = unsigned __int128;

// ---- a naive model of the serial store --------------------------------------

struct Slot {
  uint8_t data;
  uint8_t attr;
  const void *note;
};

struct Model {
  std::map<uint64_t, Slot> mem;
  std::string errors;
  void record(uint32_t code, uint64_t addr = 0, const void *note = nullptr) {
    hex_error e{};
    e.code = code;
    e.name = hex_strerror(code);
    e.addr = addr;
    e.note = note;
    addError(errors, e);
  }
  std::string text() const {
    std::string out;
    for (const auto &[a, s] : mem)
      addToken(out, hexText(a) + "=" + slotText(s.data, s.attr, s.note));
    return out;
  }
};

// The code as one number of 8N bits; each copy adds the increment's bytes,
// repeated towards the front of a code longer than 4 bytes.
bool modelSerial(Model &m, const serialspec &s) {
  const size_t n = s.codeBytes.size();
  const int64_t step = s.addrInc ? s.addrInc : int64_t(n);
  if (n > uint64_t(step < 0 ? -step : step)) {
    m.record(EOVERLAPS);
    return false;
  }
  const __int128 first = s.start, last = first + __int128(step) * (s.repetitions - 1);
  if (std::min(first, last) < 0 || std::max(first, last) + __int128(n) - 1 > __int128(UINT64_MAX)) {
    m.record(EBELOWZERO);
    return false;
  }
  const u128 mod = u128(1) << (8 * n);
  u128 value = 0, inc = 0;
  for (size_t i = 0; i < n; ++i) {
    value = value << 8 | s.codeBytes[i];
    inc |= u128((uint32_t(s.codeInc) >> (8 * (i % 4))) & 0xFF) << (8 * i);
  }
  for (uint32_t r = 0; r < s.repetitions; ++r, value = (value + inc) % mod) {
    for (size_t k = 0; k < n; ++k) {
      const uint64_t a = uint64_t(first + __int128(step) * r + __int128(k));
      const uint8_t v = uint8_t(value >> (8 * (n - 1 - k)));
      auto it = m.mem.find(a);
      if (it != m.mem.end() && (it->second.attr & HEX_PRESERVED)) {
        m.record(EPRESERVED, a);
        return false;
      }
      if (it != m.mem.end() && !s.clobber && it->second.data != v) {
        m.record(ECLASH, a);
        return false;
      }
      Slot &slot = m.mem[a];
      if (s.clobber && (slot.attr & HEX_FORCED))
        m.record(ECLOBBERED, a, slot.note);
      if (!(slot.attr & HEX_PRESENT) || s.clobber)
        slot = {v, uint8_t(HEX_PRESENT | (s.clobber ? HEX_FORCED : 0) | (slot.attr & HEX_FORCED)),
                slot.note};
      slot.note = s.owner;
    }
  }
  return true;
}

// The engine against the model on seeded random series over random data:
// code lengths 1 to 8 with carries through 00/FF runs, intervals up, down,
// back to back (long series stored in runs) and overlapping, starts at
// both ends of the address space, forced and plain, preserved bytes.
TEST(HexSerial, MatchesTheModel) {
  for (uint32_t seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    auto pick = [&](std::initializer_list<uint64_t> l) { return *(l.begin() + rng() % l.size()); };
    serialspec s;
    const size_t n = 1 + rng() % 8;
    for (size_t i = 0; i < n; ++i)
      s.codeBytes.push_back(uint8_t(pick({0x00, 0xFF, 0xFE, 0x01, rng()})));
    s.codeInc = int32_t(pick({0, 1, uint64_t(-1), 0x100, 0x01FFFFFF, rng()}));
    const int32_t wide = int32_t(n + rng() % 6);
    s.addrInc = int32_t(pick({0, n, uint64_t(wide), uint64_t(-wide), 1 + rng() % n}));
    s.repetitions = uint32_t(rng() % 4 == 0 ? 600 + rng() % 900 : 1 + rng() % 5);
    serialspec_setStart(&s, pick({rng() % 64, 0x10000 + rng() % 256, UINT64_MAX - rng() % 64}));
    s.clobber = rng() % 2;
    serialspec_setOwner(&s, &ownerA);

    Image h = newImage();
    Model m;
    const uint64_t span = uint64_t(std::max(s.addrInc, int32_t(n))) * s.repetitions;
    for (int k = int(rng() % 3) * int(rng() % 40); k > 0; --k) {
      const uint64_t a = s.start - 8 + rng() % (span + 16);
      const uint8_t v = uint8_t(pick({0x00, 0xFF, 0x01, rng()}));
      const bool forced = rng() % 2, keep = rng() % 8 == 0;
      if (m.mem.count(a) || !(forced ? hex_forceByte(h.get(), a, v) : hex_storeByte(h.get(), a, v)))
        continue;
      hex_setNote(h.get(), a, a, &ownerB);
      if (keep)
        hex_preserveData(h.get(), a, a, 1);
      m.mem[a] = {v, uint8_t(HEX_PRESENT | (forced ? HEX_FORCED : 0) | (keep ? HEX_PRESERVED : 0)),
                  &ownerB};
    }
    hex_clearErrors();
    const bool expected = modelSerial(m, s);
    EXPECT_EQ(hex_serial(h.get(), &s), expected);
    EXPECT_EQ(errors(), m.errors);
    EXPECT_EQ(present(h.get()), m.text());
  }
}

// ---- the edges of the address space and the refusals --------------------------

TEST(HexSerial, RefusesWhatTheSpaceCannotHoldAndStoresUpToItsEdges) {
  struct Case {
    uint64_t start;
    int32_t addrInc;
    uint32_t reps;
    const char *result; // present bytes, or the error
  };
  const uint64_t top = UINT64_MAX;
  const Case cases[] = {
      {top - 1, 0, 1, "FFFFFFFFFFFFFFFE=12 FFFFFFFFFFFFFFFF=34"},
      {top, 0, 1, "EBELOWZERO"},
      {top - 4, 0, 3, "EBELOWZERO"}, // the third copy ends one past the top
      {top - 4, 2, 3, "EBELOWZERO"},
      {top - 6, 0x7FFFFFFF, 2, "EBELOWZERO"},
      {top - 1, -2, 2, "FFFFFFFFFFFFFFFC=12 FFFFFFFFFFFFFFFD=34 FFFFFFFFFFFFFFFE=12 FFFFFFFFFFFFFFFF=34"},
      {4, -2, 3, "0=12 1=34 2=12 3=34 4=12 5=34"},
      {4, -2, 4, "EBELOWZERO"},
      {0x80000000, INT32_MIN, 2, "0=12 1=34 80000000=12 80000001=34"},
      {0, 1, 2, "EOVERLAPS"},
      {0, -1, 1, "EOVERLAPS"}, // one copy, yet its interval is still checked
  };
  for (const Case &c : cases) {
    Image h = newImage();
    serialspec s;
    s.codeBytes = {0x12, 0x34};
    serialspec_setStart(&s, c.start);
    serialspec_setAddrInc(&s, c.addrInc);
    ASSERT_TRUE(serialspec_setRepts(&s, c.reps));
    hex_clearErrors();
    const bool ok = hex_serial(h.get(), &s);
    EXPECT_EQ(ok ? present(h.get()) : errors(), c.result) << hexText(c.start) << " " << c.addrInc;
    EXPECT_EQ(ok, hex_errorCount() == 0);
  }
}

// Each refusal of the records and the stores records its code and changes
// nothing.
TEST(HexSerial, SpecRecordsAndStoresRecordTheirRefusals) {
  serialspec s;
  stringspec t, packed;
  const uint8_t code[] = {0x0D, 0x0A};
  ASSERT_TRUE(stringspec_appendCode(&t, code, 2) && stringspec_setPacked(&packed, true));
  Image h = newImage();
  const struct {
    const char *error;
    std::function<bool()> call;
  } cases[] = {
      {"ENOSTART", [&] { return hex_serial(h.get(), &s); }},
      {"ENOCODE", [&] { return serialspec_setStart(&s, 0), hex_serial(h.get(), &s); }},
      {"ENOCODE", [&] { return serialspec_getCodeByte(&s, 0) != 0; }},
      {"EARG", [&] { return serialspec_setRepts(&s, 0) || serialspec_getRepts(&s) != 1; }},
      {"ENULL", [&] { return hex_serial(nullptr, &s); }},
      {"ENOSTART", [&] { return hex_string(h.get(), &t); }},
      {"ENULL", [&] { return stringspec_setString(&t, nullptr); }},
      {"ENOCODE", [&] { return stringspec_setPacked(&t, true) || t.packed; }},
      {"ENOCODE", [&] { return stringspec_appendCode(&packed, code, 2) || !packed.codeBytes.empty(); }},
  };
  for (const auto &c : cases) {
    hex_clearErrors();
    EXPECT_FALSE(c.call()) << c.error;
    EXPECT_EQ(errors(), c.error);
  }
  EXPECT_EQ(bounds(h.get()), "count 0");
}

} // namespace
