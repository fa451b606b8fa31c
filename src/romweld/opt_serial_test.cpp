// What -SERIAL, -STRING and -STRPACK store through the parsers and the
// pipeline. Messages: test/cli/serial.test; the README's and the manual's
// examples (serials counting at an interval, a string, one with a trailing
// code, a packed pair): test/cli/documents.test.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "image/testutil.h"
#include "romweld/args.h"
#include "romweld/testutil.h"

namespace {

using testutil::hexText;

std::string bytes(const hexdata *h) { // present bytes as "addr=byte"
  std::string out;
  for (uint64_t a = 0, next = 0; hex_getByteCount(h) && hex_nextPresent(h, next, &a); next = a + 1)
    testutil::addToken(out, hexText(a) + "=" + hexText(hex_getByte(h, a)));
  return out;
}

struct OptSerial : optest::OptionTest {};

TEST_F(OptSerial, PlacesTheBytes) {
  const std::pair<std::vector<const char *>, const char *> cases[] = { // arguments, bytes
      {{"-SERIAL=1234@1000"}, "1000=12 1001=34"},
      {{"-SERIAL=00FF+1@1000r2"}, "1000=0 1001=FF 1002=1 1003=0"},
      {{"-SERIAL=1234@1000-10r3"}, "FE0=12 FE1=34 FF0=12 FF1=34 1000=12 1001=34"},
      {{"-SERIAL=ABC@0"}, "0=A 1=BC"},
      // Intended: past 4 bytes the increment's bytes repeat towards the front.
      {{"-SERIAL=0000000000+1@0r2"}, "0=0 1=0 2=0 3=0 4=0 5=1 6=0 7=0 8=0 9=1"},
      {{"-STRPACK@3000=ABC"}, "3000=C2 3001=20 3002=80 3003=21"},
      // Addresses and intervals in words.
      {{"-ADDRESSING=2", "-SERIAL=1234@800-8r2", "-STRING@1800=A"},
       "FF0=12 FF1=34 1000=12 1001=34 3000=41 3001=0"},
  };
  for (const auto &[args, want] : cases) {
    SCOPED_TRACE(args.back());
    args_reset();
    romweld.output.suppress = true;
    for (const char *a : args)
      ASSERT_TRUE(args_add(a));
    EXPECT_TRUE(process(1));
    EXPECT_EQ(bytes(ihex_getImage(romweld.hex)), want);
  }
  args_reset();
}

} // namespace
