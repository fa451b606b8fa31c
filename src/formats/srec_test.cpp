#include "formats/srec.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "formats/testutil.h"
#include "image/hex_errno.h"

namespace {

using namespace testutil;

struct srecFixture : ::testing::Test {
  Hex x = newHex();
  void SetUp() override { hex_clearErrors(); }
};

bool readSrec(ihex *x, const std::string &text) {
  FILE *f = openText(text);
  ihex_extent placed;
  const bool ok = srec_readToMerge(x, f, nullptr, nullptr, &placed);
  std::fclose(f);
  return ok;
}

// The start linear address, "-" when there is none.
std::string sla(const ihex *x) { return x->hasEIP ? hexText(x->EIP) : "-"; }

struct readCase {
  const char *what;
  std::string text;
  const char *image, *sla;
  const char *errs; // none: the read succeeds
};

const readCase readCases[] = {
    {"each width at its address; header skipped; cumulative counts",
     "S0030000FC\nS10500100102E7\nS604000001FA\nS20502000003F5\nS307FFFFFFFFAABB97\n"
     "S5030003F9\nS9031234B6\n",
     "0=BB 10=01 11=02 20000=03 FFFFFFFF=AA", "1234", ""},
    {"lower case digits, blanks, CR/LF ends, blank lines; S8 address 0: no start address",
     "S1050010010edb \t\r\n\r\n \nS804000000FB\r\n", "10=01 11=0E", "-", ""},
    {"no termination record: no start address", "S10500100102E7\n", "10=01 11=02", "-", ""},
    {"nothing but blank lines", "\n \n", "", "-", "ENOEOF"},
    {"count that disagrees", "S10500100102E7\nS5030002FA\nS9030000FC\n", "10=01 11=02", "-",
     "ECOUNT@1(2,2)"},
    {"bad checksum", "S10500100102E8\nS9030000FC\n", "10=01 11=02", "-", "ECHECKSUM(1)"},
    {"S4, a bad type, an odd digit", "S4030000FC\nSA030000FC\nS9030000FC0\nS9030000FC\n", "", "-",
     "EREADHEX(1) EREADHEX(2) EREADHEX(3)"},
    {"count byte against the line; widths the types do not allow",
     "S10600100102E7\nS1020010\nS905123400B3\nS9030000FC\n", "", "-",
     "EREADHEX(1) EREADHEX(2) EREADHEX(3)"},
    {"stray character", "S105001001G2E7\nS9030000FC\n", "", "-", "EBADCHAR(1)"},
    {"records after the termination record", "S9030000FC\nS10500100102E7\nS9030000FC\n", "", "-",
     "EREADHEX(2) EREADHEX(3)"},
    {"huge line with a stray character", "S1" + std::string(20000, '0') + "\x01\nS9030000FC\n", "",
     "-", "EBADCHAR(1)"},
};

TEST_F(srecFixture, ReadsRecordsAndRefusesMalformedInput) {
  for (const readCase &c : readCases) {
    hex_clearErrors();
    EXPECT_EQ(readSrec(x.get(), c.text), !*c.errs) << c.what;
    EXPECT_EQ(errors(), c.errs) << c.what;
    EXPECT_EQ(present(x->image), c.image) << c.what;
    EXPECT_EQ(sla(x.get()), c.sla) << c.what;
  }
}

struct writeCase {
  const char *what;
  std::vector<std::pair<uint64_t, std::vector<uint8_t>>> data;
  int64_t sla; // -1: none
  bool ssa;
  unsigned variant;
  std::string text; // after the S0 header, when anything is written
  const char *errs;
};

const writeCase writeCases[] = {
    {"empty image", {}, -1, false, SREC_AUTO, "S5030000FC\nS9030000FC\n", ""},
    {"runs cut at the length, a break and a gap",
     {{0x10, {1, 2, 3, 4, 5}}, {0x20, {6}}}, 0x1234, false, SREC_AUTO,
     "S1060010010203E3\nS104001304E4\nS104001405E2\nS104002006D5\nS5030004F8\nS9031234B6\n", ""},
    {"a start address above 0xFFFF widens the records", {{0x10, {0xAA}}}, 0x123456, false, SREC_AUTO,
     "S205000010AA40\nS5030001FB\nS8041234565F\n", ""},
    {"data above 0xFFFFFF", {{0x1000000, {0xAA}}}, -1, false, SREC_AUTO,
     "S30601000000AA4E\nS5030001FB\nS70500000000FA\n", ""},
    {"a forced width drops what it cannot hold", {{0x10, {0xAA}}}, 0x12345678, true, SREC_S28,
     "S205000010AA40\nS5030001FB\nS804000000FB\n", "EHEX(4) EHEX(3)"},
    {"forced S19 cannot reach 0x10000", {{0x10000, {1}}}, -1, false, SREC_S19, "", "EHEX(5)"},
    {"nothing above 4 GiB", {{0x100000000, {1}}}, -1, false, SREC_AUTO, "", "EHEX(7)"},
    {"unknown variant", {}, -1, false, 4, "", "EARG"},
};

TEST_F(srecFixture, WritesOneWidthAndRefusesWhatItCannotHold) {
  for (const writeCase &c : writeCases) {
    Hex y = newHex();
    for (const auto &[a, b] : c.data)
      hex_storeBytes(y->image, a, b.data(), b.size());
    if (c.sla >= 0)
      ihex_setSLA(y.get(), uint32_t(c.sla));
    if (c.ssa)
      ihex_setSSA(y.get(), 1, 2);
    ihex_setMaxLength(y.get(), 3);
    ihex_addBreak(y.get(), 0x14);
    hex_clearErrors();
    int result = 0;
    const std::string text = written([&](FILE *f) { return srec_write(y.get(), f, c.variant); }, &result);
    EXPECT_EQ(text, c.text.empty() ? "" : "S0030000FC\n" + c.text) << c.what;
    EXPECT_EQ(result, !c.text.empty()) << c.what;
    EXPECT_EQ(errors(), c.errs) << c.what;
  }
}

// What the writer writes reads back as the same image and start address:
// long records at their longest in each width, and more records than S5
// can count.
TEST_F(srecFixture, RoundTrip) {
  uint32_t seed = 12345;
  auto rnd = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int i = 0; i < 200; ++i) {
    std::vector<uint8_t> b(rnd() % 600 + 1, uint8_t(rnd() >> 16));
    hex_storeBytes(x->image, rnd() % (0x10000 - b.size()), b.data(), b.size());
  }
  ihex_setSLA(x.get(), 0xFF);
  for (uint32_t len : {255u, 1u}) {
    if (len == 1) {
      const std::vector<uint8_t> run(0x10000, 0x5A);
      hex_storeBytes(x->image, 0x10000, run.data(), run.size());
    }
    ihex_setMaxLength(x.get(), len);
    for (unsigned variant : {SREC_AUTO, SREC_S28, SREC_S37}) {
      const std::string text = written([&](FILE *f) { return srec_write(x.get(), f, variant); });
      Hex y = newHex();
      ASSERT_TRUE(readSrec(y.get(), text)) << errors();
      EXPECT_EQ(present(y->image), present(x->image));
      EXPECT_EQ(sla(y.get()), "FF");
      EXPECT_EQ(text.find("\nS6") != std::string::npos, len == 1);
    }
  }
}

} // namespace
