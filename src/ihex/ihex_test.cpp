#include "ihex/ihex.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ihex/hex_errno.h"

namespace {

// Reads text through a real stream, as the tool does.
bool readText(ihex *x, const std::string &text, const ihex_readspec *spec = nullptr) {
  FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  if (text.empty())
    f = std::tmpfile();
  bool ok = ihex_readSpecd(x, f, spec);
  std::fclose(f);
  return ok;
}

// "addr=byte addr=byte ..." of every present byte, for one-line assertions.
std::string dump(const ihex *x) {
  std::string s;
  uint64_t a = 0, next = 0;
  char tmp[40];
  while (hex_getByteCount(x->image) && hex_nextPresent(x->image, next, &a)) {
    std::snprintf(tmp, sizeof tmp, "%s%llX=%02X", s.empty() ? "" : " ",
                  static_cast<unsigned long long>(a), hex_getByte(x->image, a));
    s += tmp;
    next = a + 1;
  }
  return s;
}

std::string errors() {
  std::string s;
  char tmp[64];
  for (uint32_t i = 0; i < hex_errorCount(); ++i) {
    hex_error e = hex_errorAt(i);
    std::snprintf(tmp, sizeof tmp, "%s%s(%u)", s.empty() ? "" : " ", e.name, e.num);
    s += tmp;
  }
  return s;
}

std::string writeText(const ihex *x, unsigned code, int *result = nullptr) {
  char *p = nullptr;
  size_t n = 0;
  FILE *f = open_memstream(&p, &n);
  int r = ihex_write(x, f, code);
  std::fclose(f);
  if (result)
    *result = r;
  std::string s(p, n);
  std::free(p);
  return s;
}

struct ihexFixture : ::testing::Test {
  ihex *x = nullptr;
  void SetUp() override {
    hex_clearErrors();
    x = ihex_create();
  }
  void TearDown() override { ihex_destroy(x); }
  void put(uint64_t addr, std::vector<uint8_t> bytes) {
    hex_storeBytes(x->image, addr, bytes.data(), bytes.size());
  }
};

const char EOFREC[] = ":00000001FF\n";

// ---- record decoding --------------------------------------------------------

struct decodeCase {
  const char *name;
  const char *text; // EOF record appended
  const char *image;
};

const decodeCase decodeCases[] = {
    {"plain data", ":03001000010203E7\n", "10=01 11=02 12=03"},
    {"lower case digits, CR/LF ends", ":03001000010203E7\r\n:00000001ff\r\n", "10=01 11=02 12=03"},
    {"trailing blanks and tabs", ":0100000055AA \t\n", "0=55"},
    {"empty data record ignored", ":00001000F0\n", ""}, // LL 0 with a nonzero address
    {"no extended record: runs past 0xFFFF", ":02FFFF00AABB9B\n", "FFFF=AA 10000=BB"},
    {"segment base", ":020000021000EC\n:010005007783\n", "10005=77"},
    {"segment wraps inside its 64 KiB", ":020000021000EC\n:02FFFF00AABB9B\n", "10000=BB 1FFFF=AA"},
    {"linear base", ":020000040001F9\n:010005007783\n", "10005=77"},
    {"linear carries into next segment", ":020000040001F9\n:02FFFF00AABB9B\n", "1FFFF=AA 20000=BB"},
    {"linear wraps at 4 GiB", ":02000004FFFFFC\n:02FFFF00AABB9B\n", "0=BB FFFFFFFF=AA"},
    {"linear then segment replace each other", ":020000040001F9\n:020000020000FC\n:010005007783\n", "5=77"},
    {"data after the EOF record still loads", ":00000001FF\n:0100000055AA\n", "0=55"},
};

TEST_F(ihexFixture, DecodesRecords) {
  for (const decodeCase &c : decodeCases) {
    hex_clearErrors();
    std::string text = c.text;
    if (text.find(":00000001") == std::string::npos)
      text += EOFREC;
    bool ok = readText(x, text);
    EXPECT_TRUE(ok) << c.name << ": " << errors();
    EXPECT_EQ(dump(x), c.image) << c.name;
  }
}

TEST_F(ihexFixture, StartAddressRecords) {
  ASSERT_TRUE(readText(x, std::string(":0400000312345678E5\n:04000005000123458E\n") + EOFREC))
      << errors();
  EXPECT_TRUE(ihex_hasSSA(x));
  EXPECT_EQ(ihex_getSSA(x), 0x12345678u);
  EXPECT_EQ(ihex_getSLA(x), 0x00012345u);
  // The same records again agree; different ones conflict, the last stands.
  hex_clearErrors();
  EXPECT_FALSE(readText(x, std::string(":0400000312345678E5\n:0400000312355679E3\n"
                                       ":04000005000123458E\n:04000005000123468D\n") +
                           EOFREC));
  EXPECT_EQ(errors(), "ECSCONFLICT(2) EIPCONFLICT(2) EEIPCONFLICT(0)");
  EXPECT_EQ(ihex_getSSA(x), 0x12355679u);
  EXPECT_EQ(ihex_getSLA(x), 0x00012346u);
}

TEST_F(ihexFixture, ChecksumFailureStillLoads) {
  EXPECT_FALSE(readText(x, std::string(":0100000055AB\n") + EOFREC));
  EXPECT_EQ(errors(), "ECHECKSUM(1)");
  EXPECT_EQ(dump(x), "0=55");
}

// ---- malformed input catalogue ------------------------------------------------

struct badCase {
  int no;
  const char *text;
  const char *errors;
};

const badCase badCases[] = {
    {1, "\n:00000001FF\n", "EREADHEX(1)"},                                  // blank line
    {2, "0100000055AA\n:00000001FF\n", "EREADHEX(1)"},                      // no colon
    {3, " :0100000055AA\n:00000001FF\n", "EREADHEX(1)"},                    // leading blank
    {4, ":0000000\n:00000001FF\n", "EREADHEX(1)"},                          // too short
    {5, ":0100000055AA00\n:00000001FF\n", "EREADHEX(1)"},                   // text after checksum
    {6, ":01000000 55AA\n:00000001FF\n", "EREADHEX(1)"},                    // blank inside
    {7, ":0100000055AG\n:00000001FF\n", "EBADCHAR(1)"},                     // stray character
    {8, ":01000000\x01\x35\x41\x41\n:00000001FF\n", "EBADCHAR(1)"},         // control character
    {9, ":01000 0G55AA\n:00000001FF\n", "EREADHEX(1)"},                     // blank before stray
    {10, ":0100000655A4\n:00000001FF\n", "EUNKNOWNREC(1)"},                 // type 06 stops
    {11, ":0100000200FD\n:00000001FF\n", "EREADHEX(1)"},                  // type 02 too short
    {12, ":03000004000000F9\n:00000001FF\n", "EREADHEX(1)"},                // type 04 too long
    {13, ":020000030000FB\n:00000001FF\n", "EREADHEX(1)"},                  // type 03 too short
    {14, ":020000050000F9\n:00000001FF\n", "EREADHEX(1)"},                  // type 05 too short
    {15, ":0100000055AA\n", "ENOEOF(0)"},                                   // no EOF record
    {16, "", "ENOEOF(0)"},                                                  // empty file
    {17, ":FF000000\n:00000001FF\n", "EREADHEX(1)"},                        // length FF, short line
    {18, ":0100000055AA\n\n:010001006698\n:00000001FF\n", "EREADHEX(2)"}, // line numbers
};

TEST_F(ihexFixture, MalformedInputCatalogue) {
  for (const badCase &c : badCases) {
    hex_clearErrors();
    EXPECT_FALSE(readText(x, c.text)) << "case " << c.no;
    std::string e = errors();
    // EUNKNOWNREC carries the type as its second number.
    EXPECT_EQ(e, c.errors) << "case " << c.no;
  }
}

TEST_F(ihexFixture, StopsAtUnknownTypeAndAtBadExtendedRecord) {
  // Nothing after the stopping record is read: no ENOEOF, no later data.
  EXPECT_FALSE(readText(x, ":0100000655A4\n:0100000055AA\n:00000001FF\n"));
  EXPECT_EQ(hex_errorCount(), 1u);
  EXPECT_EQ(hex_errorAt(0).num2, 6u);
  EXPECT_EQ(dump(x), "");
  hex_clearErrors();
  EXPECT_FALSE(readText(x, ":0100000055AA\n:0100000400FB\n:010001006698\n"));
  EXPECT_EQ(errors(), "EREADHEX(2)");
  EXPECT_EQ(dump(x), "0=55");
}

TEST_F(ihexFixture, HugeLinesAreJudgedWithoutBuffering) {
  // A line far longer than any record, all digits: an error, not a crash.
  std::string text = ":" + std::string(3 << 20, 'F') + "\n" + EOFREC;
  EXPECT_FALSE(readText(x, text));
  EXPECT_EQ(errors(), "EREADHEX(1)");
  hex_clearErrors();
  text = ":" + std::string(10000, '0') + "Z" + std::string(10000, '0') + "\n" + EOFREC;
  EXPECT_FALSE(readText(x, text));
  EXPECT_EQ(errors(), "EBADCHAR(1)");
  // A valid record padded with a long run of trailing blanks still loads.
  hex_clearErrors();
  text = ":0100000055AA" + std::string(200000, ' ') + "\n" + EOFREC;
  EXPECT_TRUE(readText(x, text)) << errors();
  EXPECT_EQ(dump(x), "0=55");
  // The same without a final line end.
  hex_clearErrors();
  text = std::string(EOFREC) + ":" + std::string(100000, '1');
  EXPECT_FALSE(readText(x, text));
  EXPECT_EQ(errors(), "EREADHEX(2)");
}

TEST_F(ihexFixture, ListingOfProblemsIsBounded) {
  // A failed stream stops once a million problems are listed, so memory
  // stays bounded for any input.
  std::string text(1000005, '\n');
  EXPECT_FALSE(readText(x, text + EOFREC));
  EXPECT_EQ(hex_errorCount(), 1000000u);
  EXPECT_EQ(hex_errorAt(999999).num, 1000000u);
  // Bad checksums alone never stop the reading: data after the bound still
  // loads, only the further failures go unlisted.
  hex_clearErrors();
  text.clear();
  for (int i = 0; i < 1000002; ++i)
    text += ":0100000055AB\n";
  EXPECT_FALSE(readText(x, text + ":010001006698\n" + EOFREC));
  EXPECT_EQ(hex_errorCount(), 1000000u);
  EXPECT_EQ(dump(x), "0=55 1=66");
}

// ---- read spec ----------------------------------------------------------------

TEST_F(ihexFixture, RangeAndOffset) {
  // r100-1FF, s-100: file 0x0FE..0x201 stores 0x100..0x1FF at 0x0..0xFF.
  std::string text;
  char line[80];
  for (unsigned a = 0xF0; a < 0x210; a += 16) {
    unsigned sum = 16 + (a >> 8) + (a & 0xFF);
    std::string rec;
    for (int i = 0; i < 16; ++i) {
      std::snprintf(line, sizeof line, "%02X", 0x11);
      rec += line;
      sum += 0x11;
    }
    std::snprintf(line, sizeof line, ":10%04X00%s%02X\n", a, rec.c_str(), (-sum) & 0xFF);
    text += line;
  }
  text += EOFREC;
  ihex_readspec s;
  ASSERT_TRUE(ihex_readspec_setStart(&s, 0x100));
  ASSERT_TRUE(ihex_readspec_setEnd(&s, 0x1FF));
  ASSERT_TRUE(ihex_readspec_setOffset(&s, -0x100));
  int note = 0;
  ihex_readspec_setNote(&s, &note);
  ihex_readspec_setPreserveData(&s, true);
  ASSERT_TRUE(readText(x, text, &s)) << errors();
  EXPECT_EQ(hex_getByteCount(x->image), 0x100u);
  EXPECT_EQ(hex_getLoAddr(x->image), 0u);
  EXPECT_EQ(hex_getHiAddr(x->image), 0xFFu);
  EXPECT_EQ(hex_getNote(x->image, 0x80), &note);
  EXPECT_TRUE(hex_isPreserved(x->image, 0xFF));
}

// ---- merge --------------------------------------------------------------------

TEST_F(ihexFixture, MergeConflictsAndForce) {
  ihex *y = ihex_create();
  put(0, {1, 2});
  hex_storeBytes(y->image, 1, std::vector<uint8_t>{9, 3}.data(), 2);
  ihex_setSLA(x, 0x100);
  ihex_setSLA(y, 0x200);
  EXPECT_FALSE(ihex_merge(x, y, false));
  EXPECT_EQ(errors(), "EEIPCONFLICT(0) ECLASH(0)");
  EXPECT_EQ(hex_errorAt(1).addr, 1u);
  EXPECT_EQ(dump(x), "0=01 1=02 2=03");
  EXPECT_EQ(ihex_getSLA(x), 0x100u);
  EXPECT_EQ(hex_getByteCount(y->image), 0u); // the source is consumed
  ihex_destroy(y);

  hex_clearErrors();
  y = ihex_create();
  hex_storeBytes(y->image, 1, std::vector<uint8_t>{9}.data(), 1);
  ihex_setSSA(y, 0x1234, 0x5678);
  ihex_setSLA(y, 0x200);
  EXPECT_TRUE(ihex_merge(x, y, true)) << errors();
  EXPECT_EQ(dump(x), "0=01 1=09 2=03");
  EXPECT_EQ(ihex_getSLA(x), 0x200u);
  EXPECT_EQ(ihex_getSSA(x), 0x12345678u);
  ihex_destroy(y);
}

TEST_F(ihexFixture, SetSSACutsWideValues) {
  EXPECT_FALSE(ihex_setSSA(x, 0x12345, 0x1));
  EXPECT_EQ(hex_errno(), EARG);
  EXPECT_EQ(ihex_getSSA(x), 0x23450001u);
  EXPECT_FALSE(ihex_setMaxLength(x, 0));
  EXPECT_FALSE(ihex_addBreak(x, ~0ull));
  EXPECT_TRUE(ihex_addBreak(x, ~0ull - 1));
}

// ---- writer -------------------------------------------------------------------

struct writeCase {
  const char *name;
  unsigned code;
  uint64_t addr;
  unsigned count; // bytes 0x01, 0x02, ... from addr
  uint32_t maxLen;
  std::vector<uint64_t> breaks;
  const char *text;
};

const writeCase writeCases[] = {
    {"INHX32 two bytes", 2, 0, 2, 16, {}, ":020000000102FB\n:00000001FF\n"},
    {"INHX032 starts with an extended record", 3, 0, 2, 16, {},
     ":020000040000FA\n:020000000102FB\n:00000001FF\n"},
    {"INHX8M two bytes", 0, 0, 2, 16, {}, ":020000000102FB\n:00000001FF\n"},
    {"split at the maximum length", 2, 0, 20, 16, {},
     ":100000000102030405060708090A0B0C0D0E0F1068\n:0400100011121314A2\n:00000001FF\n"},
    {"split at a break", 2, 0, 16, 16, {8},
     ":080000000102030405060708D4\n:08000800090A0B0C0D0E0F108C\n:00000001FF\n"},
    {"break at the first byte changes nothing", 2, 0, 4, 16, {0},
     ":0400000001020304F2\n:00000001FF\n"},
    {"64 KiB boundary in INHX32", 2, 0xFFFE, 4, 16, {},
     ":02FFFE000102FE\n:020000040001F9\n:020000000304F7\n:00000001FF\n"},
    {"INHX16 extended segment", 1, 0x12345, 1, 16, {},
     ":020000021000EC\n:012345000196\n:00000001FF\n"},
    {"maximum length 3", 2, 0x10, 4, 3, {},
     ":03001000010203E7\n:0100130004E8\n:00000001FF\n"},
    {"INHX032 high address", 3, 0x80001000, 1, 16, {},
     ":0200000480007A\n:0110000001EE\n:00000001FF\n"},
};

TEST_F(ihexFixture, WritesRecords) {
  for (const writeCase &c : writeCases) {
    ihex *y = ihex_create();
    std::vector<uint8_t> bytes(c.count);
    for (unsigned i = 0; i < c.count; ++i)
      bytes[i] = static_cast<uint8_t>(i + 1);
    hex_storeBytes(y->image, c.addr, bytes.data(), bytes.size());
    ihex_setMaxLength(y, c.maxLen);
    for (uint64_t b : c.breaks)
      ihex_addBreak(y, b);
    hex_clearErrors();
    int r = 0;
    EXPECT_EQ(writeText(y, c.code, &r), c.text) << c.name;
    EXPECT_EQ(r, 1) << c.name;
    EXPECT_EQ(hex_errorCount(), 0u) << c.name;
    ihex_destroy(y);
  }
}

TEST_F(ihexFixture, StartAddressRecordsPerFormat) {
  ihex_setSSA(x, 0x1234, 0x5678);
  ihex_setSLA(x, 0x00012345);
  EXPECT_EQ(writeText(x, 1), ":0400000312345678E5\n:00000001FF\n");
  EXPECT_EQ(errors(), "EHEX(4)"); // EIP dropped silently by INHX16
  hex_clearErrors();
  EXPECT_EQ(writeText(x, 2), ":04000005000123458E\n:00000001FF\n");
  EXPECT_EQ(errors(), "EHEX(3)");
  hex_clearErrors();
  EXPECT_EQ(writeText(x, 3), ":04000005000123458E\n:00000001FF\n");
  hex_clearErrors();
  EXPECT_EQ(writeText(x, 0), ":00000001FF\n");
  EXPECT_EQ(errors(), "EHEX(4) EHEX(3)");
}

TEST_F(ihexFixture, RangeCheckWritesNothing) {
  put(0x100000, {1});
  int r = 1;
  EXPECT_EQ(writeText(x, 1, &r), "");
  EXPECT_EQ(r, 0);
  EXPECT_EQ(errors(), "EHEX(1)");
  hex_clearErrors();
  EXPECT_EQ(writeText(x, 4), "");
  EXPECT_EQ(hex_errno(), EARG);
}

TEST_F(ihexFixture, WriteErrorIsRecorded) {
  put(0, {1});
  FILE *f = std::fopen("/dev/full", "w");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(ihex_write(x, f, 2), 0);
  EXPECT_EQ(hex_errno(), EIO);
  std::fclose(f);
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
    hex_forceBytes(x->image, a, b.data(), b.size());
  }
  ihex_addBreak(x, 0x1234);
  ihex_setMaxLength(x, 255);
  for (unsigned code : {2u, 3u}) {
    hex_clearErrors();
    std::string text = writeText(x, code);
    ihex *y = ihex_create();
    ASSERT_TRUE(readText(y, text)) << errors();
    EXPECT_EQ(dump(y), dump(x));
    ihex_destroy(y);
  }
}

} // namespace
