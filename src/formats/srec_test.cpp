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
    {"lower case digits, blanks, CR/LF ends, blank lines; a start address of 0",
     "S1050010010edb \t\r\n\r\n \nS804000000FB\r\n", "10=01 11=0E", "0", ""},
    {"no termination record: no start address", "S10500100102E7\n", "10=01 11=02", "-", ""},
    {"nothing but blank lines", "\n \n", "", "-", "ENOEOF"},
    {"count that disagrees", "S10500100102E7\nS5030002FA\nS9030000FC\n", "10=01 11=02", "0",
     "ECOUNT@1(2,2)"},
    {"bad checksum", "S10500100102E8\nS9030000FC\n", "10=01 11=02", "0", "ECHECKSUM(1)"},
    {"S4, a bad type, an odd digit", "S4030000FC\nSA030000FC\nS9030000FC0\nS9030000FC\n", "", "0",
     "EREADHEX(1) EREADHEX(2) EREADHEX(3)"},
    {"count byte against the line; widths the types do not allow",
     "S10600100102E7\nS1020010\nS905123400B3\nS9030000FC\n", "", "0",
     "EREADHEX(1) EREADHEX(2) EREADHEX(3)"},
    {"stray character", "S105001001G2E7\nS9030000FC\n", "", "0", "EBADCHAR(1)"},
    {"records after the termination record", "S9030000FC\nS10500100102E7\nS9030000FC\n", "", "0",
     "EREADHEX(2) EREADHEX(3)"},
    {"huge line with a stray character", "S1" + std::string(20000, '0') + "\x01\nS9030000FC\n", "",
     "0", "EBADCHAR(1)"},
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

} // namespace
