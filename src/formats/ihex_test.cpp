#include "formats/ihex.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/hex_errno.h"
#include "formats/testutil.h"

namespace {

using namespace testutil;

struct ihexFixture : ::testing::Test {
  Hex x = newHex();
  void SetUp() override { hex_clearErrors(); }
};

// ---- reading: record decoding and the malformed-input catalogue ---------------

struct readCase {
  const char *what;
  std::string text;
  const char *image; // every present byte afterwards
  const char *errs;  // none: the read succeeds
};

const readCase readCases[] = {
    {"plain data", ":03001000010203E7\n" EOFREC, "10=01 11=02 12=03", ""},
    {"lower case digits, trailing blanks and tabs, CR/LF ends", ":03001000010203E7 \t\r\n:00000001ff\r\n",
     "10=01 11=02 12=03", ""},
    {"empty data record ignored", ":00001000F0\n" EOFREC, "", ""}, // LL 0 with a nonzero address
    {"no extended record: runs past 0xFFFF", ":02FFFF00AABB9B\n" EOFREC, "FFFF=AA 10000=BB", ""},
    {"segment wraps inside its 64 KiB", ":020000021000EC\n:02FFFF00AABB9B\n" EOFREC, "10000=BB 1FFFF=AA", ""},
    {"linear carries into next segment", ":020000040001F9\n:02FFFF00AABB9B\n" EOFREC, "1FFFF=AA 20000=BB", ""},
    {"linear wraps at 4 GiB", ":02000004FFFFFC\n:02FFFF00AABB9B\n" EOFREC, "0=BB FFFFFFFF=AA", ""},
    {"linear then segment replace each other",
     ":020000040001F9\n:020000020000FC\n:010005007783\n" EOFREC, "5=77", ""},
    {"data after the EOF record still loads", EOFREC ":0100000055AA\n", "0=55", ""},
    {"a bad checksum still loads", ":0100000055AB\n" EOFREC, "0=55", "ECHECKSUM(1)"},
    // Broken lines are listed and skipped; unknown types and bad extended
    // addresses stop the reading (no ENOEOF, no later data).
    {"leading blank", " :0100000055AA\n" EOFREC, "", "EREADHEX(1)"},
    {"text after checksum", ":0100000055AA00\n" EOFREC, "", "EREADHEX(1)"},
    {"stray character", ":0100000055AG\n" EOFREC, "", "EBADCHAR(1)"},
    {"blank before stray", ":01000 0G55AA\n" EOFREC, "", "EREADHEX(1)"},
    {"type 06 stops", ":0100000655A4\n:0100000055AA\n", "", "EUNKNOWNREC(1,6)"},
    {"type 04 too long stops", ":0100000055AA\n:03000004000000F9\n:010001006698\n", "0=55", "EREADHEX(2)"},
    {"type 03 too short", ":020000030000FB\n" EOFREC, "", "EREADHEX(1)"},
    {"type 05 too short", ":020000050000F9\n" EOFREC, "", "EREADHEX(1)"},
    {"no EOF record", ":0100000055AA\n", "0=55", "ENOEOF"},
    {"line numbers count every line", ":0100000055AA\n\n:010001006698\n" EOFREC, "0=55 1=66", "EREADHEX(2)"},
    // Lines longer than any record; those longer than a read block are
    // judged without buffering them.
    {"huge line with a stray character at its end", ":" + std::string(3 << 20, 'F') + "\x01\n" EOFREC, "",
     "EBADCHAR(1)"},
    {"long line with a stray character",
     ":" + std::string(10000, '0') + "\x01" + std::string(10000, '0') + "\n" EOFREC, "", "EBADCHAR(1)"},
    {"record padded with huge trailing blanks", ":0100000055AA" + std::string(300000, ' ') + "\n" EOFREC,
     "0=55", ""},
    {"huge last line without a line end", EOFREC ":" + std::string(100000, '1'), "", "EREADHEX(2)"},
};

TEST_F(ihexFixture, ReadsRecordsAndRejectsMalformedInput) {
  for (const readCase &c : readCases) {
    hex_clearErrors();
    EXPECT_EQ(readText(x.get(), c.text), !*c.errs) << c.what;
    EXPECT_EQ(errors(), c.errs) << c.what;
    EXPECT_EQ(present(x->image), c.image) << c.what;
  }
}

// A start address record that repeats an earlier one agrees; one that
// differs conflicts, and the last one stands.
TEST_F(ihexFixture, StartAddressRecords) {
  EXPECT_FALSE(readText(x.get(), ":0400000312345678E5\n:0400000312345678E5\n:0400000312355679E3\n"
                                 ":04000005000123458E\n:04000005000123468D\n" EOFREC));
  EXPECT_EQ(errors(), "ECSCONFLICT(3) EIPCONFLICT(3) EEIPCONFLICT");
  EXPECT_TRUE(ihex_hasSSA(x.get()));
  EXPECT_EQ(ihex_getSSA(x.get()), 0x12355679u);
  EXPECT_EQ(ihex_getSLA(x.get()), 0x00012346u);
}

TEST_F(ihexFixture, ListingOfProblemsIsBounded) {
  // A failed stream stops once the error list is full, so a huge broken
  // file is not read to its end.
  std::string text(HEX_ERRORS_KEPT + 5, '\n');
  EXPECT_FALSE(readText(x.get(), text + EOFREC));
  EXPECT_EQ(hex_errorCount(), HEX_ERRORS_KEPT);
  EXPECT_EQ(hex_errorsDropped(), 0u);
  EXPECT_EQ(hex_errorAt(HEX_ERRORS_KEPT - 1).num, HEX_ERRORS_KEPT);
  // Bad checksums alone never stop the reading: data after the bound still
  // loads, only the further failures go unlisted.
  hex_clearErrors();
  text.clear();
  for (uint32_t i = 0; i < HEX_ERRORS_KEPT + 2; ++i)
    text += ":0100000055AB\n";
  EXPECT_FALSE(readText(x.get(), text + ":010001006698\n" EOFREC));
  EXPECT_EQ(hex_errorCount(), HEX_ERRORS_KEPT);
  EXPECT_EQ(hex_errorsDropped(), 2u);
  EXPECT_EQ(present(x->image), "0=55 1=66");
}

// r101-102, s-100, a note, preserving: records wholly outside the range are
// skipped, the one across it is cut at both ends and lands at 1..2.
TEST_F(ihexFixture, RangeOffsetNoteAndPreserve) {
  ihex_readspec s;
  ASSERT_TRUE(ihex_readspec_setStart(&s, 0x101) && ihex_readspec_setEnd(&s, 0x102) &&
              ihex_readspec_setOffset(&s, -0x100));
  store_setOwner(&s.policy, &ownerA);
  store_setPreserve(&s.policy, true);
  const std::string text = record(0, 0xF0, {9}) + record(0, 0x100, {1, 2, 3, 4}) + record(0, 0x103, {9});
  ASSERT_TRUE(readText(x.get(), text + EOFREC, &s)) << errors();
  EXPECT_EQ(present(x->image), "1=02R/A 2=03R/A");
}

// ---- writer -------------------------------------------------------------------

// A stream that fails has no end-of-file record either: the read error is
// what is recorded, not a missing EOF record. A write that fails is
// recorded too.
TEST_F(ihexFixture, StreamErrorsAreRecorded) {
  FILE *out = std::fopen("/dev/full", "w"), *in = std::fopen("/dev/null", "w");
  ASSERT_TRUE(out && in);
  EXPECT_FALSE(ihex_read(x.get(), in));
  EXPECT_EQ(errors(), "EIO");
  hex_storeByte(x->image, 0, 1);
  EXPECT_EQ(ihex_write(x.get(), out, 2), 0);
  EXPECT_EQ(hex_errno(), EIO);
  std::fclose(out);
  std::fclose(in);
}

// Writing what was read gives back the same image, over long runs with
// gaps, breaks and segment crossings.
TEST_F(ihexFixture, RoundTrip) {
  uint32_t seed = 12345;
  auto rnd = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int i = 0; i < 200; ++i) {
    uint64_t a = rnd() % 0x40000;
    std::vector<uint8_t> b(rnd() % 300 + 1);
    for (auto &v : b)
      v = static_cast<uint8_t>(rnd() >> 16);
    hex_storeBytes(x->image, a, b.data(), b.size());
  }
  ihex_addBreak(x.get(), 0x1234);
  ihex_setMaxLength(x.get(), 255);
  for (unsigned code : {2u, 3u}) {
    Hex y = newHex();
    ASSERT_TRUE(readText(y.get(), writeText(x.get(), code))) << errors();
    EXPECT_EQ(present(y->image), present(x->image));
  }
}

} // namespace
