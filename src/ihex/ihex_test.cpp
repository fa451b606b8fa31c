#include "ihex/ihex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ihex/hex_errno.h"
#include "ihex/testutil.h"

namespace {

using namespace testutil;

struct ihexFixture : ::testing::Test {
  Hex x = newHex();
  void SetUp() override { hex_clearErrors(); }
  void put(uint64_t addr, std::vector<uint8_t> bytes) {
    hex_storeBytes(x->image, addr, bytes.data(), bytes.size());
  }
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
    {"lower case digits, CR/LF ends", ":03001000010203E7\r\n:00000001ff\r\n", "10=01 11=02 12=03", ""},
    {"trailing blanks and tabs", ":0100000055AA \t\n" EOFREC, "0=55", ""},
    {"empty data record ignored", ":00001000F0\n" EOFREC, "", ""}, // LL 0 with a nonzero address
    {"no extended record: runs past 0xFFFF", ":02FFFF00AABB9B\n" EOFREC, "FFFF=AA 10000=BB", ""},
    {"segment base", ":020000021000EC\n:010005007783\n" EOFREC, "10005=77", ""},
    {"segment wraps inside its 64 KiB", ":020000021000EC\n:02FFFF00AABB9B\n" EOFREC, "10000=BB 1FFFF=AA", ""},
    {"linear base", ":020000040001F9\n:010005007783\n" EOFREC, "10005=77", ""},
    {"linear carries into next segment", ":020000040001F9\n:02FFFF00AABB9B\n" EOFREC, "1FFFF=AA 20000=BB", ""},
    {"linear wraps at 4 GiB", ":02000004FFFFFC\n:02FFFF00AABB9B\n" EOFREC, "0=BB FFFFFFFF=AA", ""},
    {"linear then segment replace each other",
     ":020000040001F9\n:020000020000FC\n:010005007783\n" EOFREC, "5=77", ""},
    {"data after the EOF record still loads", EOFREC ":0100000055AA\n", "0=55", ""},
    {"a bad checksum still loads", ":0100000055AB\n" EOFREC, "0=55", "ECHECKSUM(1)"},
    // Broken lines are listed and skipped; unknown types and bad extended
    // addresses stop the reading (no ENOEOF, no later data).
    {"blank line", "\n" EOFREC, "", "EREADHEX(1)"},
    {"no colon", "0100000055AA\n" EOFREC, "", "EREADHEX(1)"},
    {"leading blank", " :0100000055AA\n" EOFREC, "", "EREADHEX(1)"},
    {"too short", ":0000000\n" EOFREC, "", "EREADHEX(1)"},
    {"text after checksum", ":0100000055AA00\n" EOFREC, "", "EREADHEX(1)"},
    {"blank inside", ":01000000 55AA\n" EOFREC, "", "EREADHEX(1)"},
    {"stray character", ":0100000055AG\n" EOFREC, "", "EBADCHAR(1)"},
    {"control character", ":01000000\x01\x35\x41\x41\n" EOFREC, "", "EBADCHAR(1)"},
    {"blank before stray", ":01000 0G55AA\n" EOFREC, "", "EREADHEX(1)"},
    {"type 06 stops", ":0100000655A4\n:0100000055AA\n", "", "EUNKNOWNREC(1,6)"},
    {"type 02 too short stops", ":0100000200FD\n:0100000055AA\n" EOFREC, "", "EREADHEX(1)"},
    {"type 04 too long stops", ":0100000055AA\n:03000004000000F9\n:010001006698\n", "0=55", "EREADHEX(2)"},
    {"type 03 too short", ":020000030000FB\n" EOFREC, "", "EREADHEX(1)"},
    {"type 05 too short", ":020000050000F9\n" EOFREC, "", "EREADHEX(1)"},
    {"no EOF record", ":0100000055AA\n", "0=55", "ENOEOF"},
    {"empty file", "", "", "ENOEOF"},
    {"length FF, short line", ":FF000000\n" EOFREC, "", "EREADHEX(1)"},
    {"line numbers count every line", ":0100000055AA\n\n:010001006698\n" EOFREC, "0=55 1=66", "EREADHEX(2)"},
    // Lines far longer than any record are judged without buffering them.
    {"huge line of digits", ":" + std::string(3 << 20, 'F') + "\n" EOFREC, "", "EREADHEX(1)"},
    {"huge line with a stray character",
     ":" + std::string(10000, '0') + "Z" + std::string(10000, '0') + "\n" EOFREC, "", "EBADCHAR(1)"},
    {"record padded with huge trailing blanks", ":0100000055AA" + std::string(200000, ' ') + "\n" EOFREC,
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

TEST_F(ihexFixture, StartAddressRecords) {
  ASSERT_TRUE(readText(x.get(), ":0400000312345678E5\n:04000005000123458E\n" EOFREC)) << errors();
  EXPECT_TRUE(ihex_hasSSA(x.get()));
  EXPECT_EQ(ihex_getSSA(x.get()), 0x12345678u);
  EXPECT_EQ(ihex_getSLA(x.get()), 0x00012345u);
  // The same records again agree; different ones conflict, the last stands.
  EXPECT_FALSE(readText(x.get(), ":0400000312345678E5\n:0400000312355679E3\n"
                                 ":04000005000123458E\n:04000005000123468D\n" EOFREC));
  EXPECT_EQ(errors(), "ECSCONFLICT(2) EIPCONFLICT(2) EEIPCONFLICT");
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

TEST_F(ihexFixture, RangeOffsetNoteAndPreserve) {
  // r100-1FF, s-100: file 0x0F0..0x20F stores 0x100..0x1FF at 0x0..0xFF.
  std::string text;
  for (unsigned a = 0xF0; a < 0x210; a += 16)
    text += record(0, a, std::vector<uint8_t>(16, 0x11));
  ihex_readspec s;
  ASSERT_TRUE(ihex_readspec_setStart(&s, 0x100));
  ASSERT_TRUE(ihex_readspec_setEnd(&s, 0x1FF));
  ASSERT_TRUE(ihex_readspec_setOffset(&s, -0x100));
  ihex_readspec_setNote(&s, &ownerA);
  ihex_readspec_setPreserveData(&s, true);
  ASSERT_TRUE(readText(x.get(), text + EOFREC, &s)) << errors();
  EXPECT_EQ(dump(x->image, 0xFF, 0x100), "FF=11R/A count 256 0-FF");
  EXPECT_EQ(slotText(x->image, 0), "11R/A");
}

// ---- merge and start addresses ------------------------------------------------

TEST_F(ihexFixture, MergeConflictsAndForce) {
  Hex y = newHex();
  put(0, {1, 2});
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
    {"INHX32 two bytes", 2, 0, 2, 16, {}, false, ":020000000102FB\n" EOFREC, ""},
    {"INHX032 starts with an extended record", 3, 0, 2, 16, {}, false,
     ":020000040000FA\n:020000000102FB\n" EOFREC, ""},
    {"INHX8M two bytes", 0, 0, 2, 16, {}, false, ":020000000102FB\n" EOFREC, ""},
    {"split at the maximum length", 2, 0, 20, 16, {}, false,
     ":100000000102030405060708090A0B0C0D0E0F1068\n:0400100011121314A2\n" EOFREC, ""},
    {"split at a break", 2, 0, 16, 16, {8}, false,
     ":080000000102030405060708D4\n:08000800090A0B0C0D0E0F108C\n" EOFREC, ""},
    {"break at the first byte changes nothing", 2, 0, 4, 16, {0}, false,
     ":0400000001020304F2\n" EOFREC, ""},
    {"64 KiB boundary in INHX32", 2, 0xFFFE, 4, 16, {}, false,
     ":02FFFE000102FE\n:020000040001F9\n:020000000304F7\n" EOFREC, ""},
    {"INHX16 extended segment", 1, 0x12345, 1, 16, {}, false,
     ":020000021000EC\n:012345000196\n" EOFREC, ""},
    {"maximum length 3", 2, 0x10, 4, 3, {}, false, ":03001000010203E7\n:0100130004E8\n" EOFREC, ""},
    {"INHX032 high address", 3, 0x80001000, 1, 16, {}, false,
     ":0200000480007A\n:0110000001EE\n" EOFREC, ""},
    // Start addresses a format cannot carry are dropped with a record.
    {"INHX16 keeps CS:IP only", 1, 0, 0, 16, {}, true, ":0400000312345678E5\n" EOFREC, "EHEX(4)"},
    {"INHX32 keeps EIP only", 2, 0, 0, 16, {}, true, ":04000005000123458E\n" EOFREC, "EHEX(3)"},
    {"INHX032 keeps EIP only", 3, 0, 0, 16, {}, true, ":04000005000123458E\n" EOFREC, "EHEX(3)"},
    {"INHX8M keeps neither", 0, 0, 0, 16, {}, true, EOFREC, "EHEX(4) EHEX(3)"},
    // An image the format cannot address is refused before anything is written.
    {"INHX16 past 1 MiB", 1, 0x100000, 1, 16, {}, false, "", "EHEX(1)"},
    {"no such format", 4, 0, 1, 16, {}, false, "", "EARG"},
};

TEST_F(ihexFixture, WritesRecords) {
  for (const writeCase &c : writeCases) {
    Hex y = newHex();
    std::vector<uint8_t> bytes(c.count);
    for (unsigned i = 0; i < c.count; ++i)
      bytes[i] = static_cast<uint8_t>(i + 1);
    if (c.count)
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

TEST_F(ihexFixture, WriteErrorIsRecorded) {
  put(0, {1});
  FILE *f = std::fopen("/dev/full", "w");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(ihex_write(x.get(), f, 2), 0);
  EXPECT_EQ(hex_errno(), EIO);
  std::fclose(f);
}

// A stream that fails part-way has no end-of-file record either; the read
// error is what is recorded, not a missing EOF record.
TEST_F(ihexFixture, ReadErrorPartWayIsRecordedAsSuch) {
  static const char head[] = ":0100000055AA\n";
  struct cookie {
    bool served = false;
  } c;
  cookie_io_functions_t io{};
  io.read = [](void *p, char *buf, size_t n) -> ssize_t {
    auto *k = static_cast<cookie *>(p);
    if (k->served)
      return -1;
    k->served = true;
    const size_t len = std::min(n, sizeof head - 1);
    std::memcpy(buf, head, len);
    return ssize_t(len);
  };
  FILE *f = fopencookie(&c, "r", io);
  ASSERT_NE(f, nullptr);
  EXPECT_FALSE(ihex_read(x.get(), f));
  std::fclose(f);
  EXPECT_EQ(errors(), "EIO");
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
