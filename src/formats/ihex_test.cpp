#include "formats/ihex.h"

#include <gtest/gtest.h>

#include <numeric>
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

// ---- merge and start addresses ------------------------------------------------

TEST_F(ihexFixture, MergeConflictsAndForce) {
  Hex y = newHex();
  hex_storeBytes(x->image, 0, std::vector<uint8_t>{1, 2}.data(), 2);
  hex_storeBytes(y->image, 1, std::vector<uint8_t>{9, 3}.data(), 2);
  ihex_setSLA(x.get(), 0x100);
  ihex_setSLA(y.get(), 0x200);
  EXPECT_FALSE(ihex_merge(x.get(), y.get(), false));
  EXPECT_EQ(errors(), "EEIPCONFLICT ECLASH@1");
  EXPECT_EQ(present(x->image), "0=01 1=02 2=03");
  EXPECT_EQ(ihex_getSLA(x.get()), 0x100u);
  EXPECT_EQ(hex_getByteCount(y->image), 0u); // the source is consumed

  hex_clearErrors();
  y = newHex();
  hex_storeByte(y->image, 1, 9);
  ihex_setSSA(y.get(), 0x1234, 0x5678);
  ihex_setSLA(y.get(), 0x200);
  EXPECT_TRUE(ihex_merge(x.get(), y.get(), true)) << errors();
  EXPECT_EQ(present(x->image), "0=01 1=09F 2=03");
  EXPECT_EQ(ihex_getSLA(x.get()), 0x200u);
  EXPECT_EQ(ihex_getSSA(x.get()), 0x12345678u);
}

TEST_F(ihexFixture, SettersRefuseOutOfRangeValues) {
  EXPECT_FALSE(ihex_setSSA(x.get(), 0x12345, 0x1));
  EXPECT_EQ(hex_errno(), EARG);
  EXPECT_EQ(ihex_getSSA(x.get()), 0x23450001u);
  EXPECT_FALSE(ihex_setMaxLength(x.get(), 0));
  EXPECT_FALSE(ihex_addBreak(x.get(), ~0ull));
  EXPECT_TRUE(ihex_addBreak(x.get(), ~0ull - 1));
}

// ---- writer -------------------------------------------------------------------

struct writeCase {
  const char *what;
  unsigned code;
  uint64_t addr;
  unsigned count; // bytes 0x01, 0x02, ... from addr
  uint32_t maxLen;
  std::vector<uint64_t> breaks;
  bool starts;      // CS:IP 1234:5678 and EIP 00012345
  const char *text; // none: nothing is written and the write fails
  const char *errs;
};

const writeCase writeCases[] = {
    {"INHX032 starts with an extended record, keeps EIP only", 3, 0, 2, 16, {}, true,
     ":020000040000FA\n:020000000102FB\n:04000005000123458E\n" EOFREC, "EHEX(3)"},
    {"split at a break", 2, 0, 16, 16, {8}, false,
     ":080000000102030405060708D4\n:08000800090A0B0C0D0E0F108C\n" EOFREC, ""},
    {"break at the first byte changes nothing", 2, 0, 4, 16, {0}, false,
     ":0400000001020304F2\n" EOFREC, ""},
    {"64 KiB boundary in INHX32", 2, 0xFFFE, 4, 16, {}, false,
     ":02FFFE000102FE\n:020000040001F9\n:020000000304F7\n" EOFREC, ""},
    {"maximum length 3", 2, 0x10, 4, 3, {}, false, ":03001000010203E7\n:0100130004E8\n" EOFREC, ""},
    // Start addresses a format cannot carry are dropped with a record.
    {"INHX16: extended segment, CS:IP only", 1, 0x12345, 1, 16, {}, true,
     ":020000021000EC\n:012345000196\n:0400000312345678E5\n" EOFREC, "EHEX(4)"},
    {"INHX32 keeps EIP only", 2, 0, 0, 16, {}, true, ":04000005000123458E\n" EOFREC, "EHEX(3)"},
    {"INHX8M: no extended record, neither start address", 0, 0, 2, 16, {}, true, ":020000000102FB\n" EOFREC,
     "EHEX(4) EHEX(3)"},
    // An image the format cannot address is refused before anything is written.
    {"INHX16 past 1 MiB", 1, 0x100000, 1, 16, {}, false, "", "EHEX(1)"},
    {"no such format", 4, 0, 1, 16, {}, false, "", "EARG"},
};

TEST_F(ihexFixture, WritesRecords) {
  for (const writeCase &c : writeCases) {
    Hex y = newHex();
    std::vector<uint8_t> bytes(c.count);
    std::iota(bytes.begin(), bytes.end(), 1);
    hex_storeBytes(y->image, c.addr, bytes.data(), bytes.size());
    ihex_setMaxLength(y.get(), c.maxLen);
    for (uint64_t b : c.breaks)
      ihex_addBreak(y.get(), b);
    if (c.starts) {
      ihex_setSSA(y.get(), 0x1234, 0x5678);
      ihex_setSLA(y.get(), 0x00012345);
    }
    hex_clearErrors();
    int r = 0;
    EXPECT_EQ(writeText(y.get(), c.code, &r), c.text) << c.what;
    EXPECT_EQ(r, *c.text ? 1 : 0) << c.what;
    EXPECT_EQ(errors(), c.errs) << c.what;
  }
}

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
