// -FIND, ,REPLACE and ,DELETE below the command line: the preserved-run
// refusal, which no option on the command line can set up yet. What users
// see of a run is in test/cli/find.test; parsing in parse_test.cpp.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "common/alert.h"
#include "image/hex_errno.h"
#include "image/hexobject.h"
#include "romweld/args.h"
#include "romweld/options.h"
#include "romweld/settings.h"

namespace {

std::vector<std::string> g_lines; // the description of each message
void collect(const char *line) {
  std::string l(line);
  l.erase(l.find_last_not_of('\n') + 1);
  const size_t at = l.find(" argument : ");
  g_lines.push_back(at == std::string::npos ? l : l.substr(at + 12));
}

struct FindOption : testing::Test {
  void SetUp() override {
    alert_resetForTests();
    alert_setSink(collect);
    romweld_reset();
  }
  void TearDown() override {
    alert_setSink(nullptr);
    romweld_reset();
  }
};

// A preserved byte refuses its match with the delete's words, for a replace
// too, and leaves that match's log line without its end; the other matches
// are still changed. The refusal fails a replace, never a delete.
TEST_F(FindOption, PreservedRunsAreRefusedOneByOne) {
  for (const char *text : {"-find=AA@0-FF,replace=BB", "-find=AA@0-FF,delete"}) {
    romweld_reset();
    romweld.hex = ihex_create();
    hexdata *h = ihex_getImage(romweld.hex);
    const uint8_t bytes[] = {0xAA, 0xAA, 0xAA, 0x00};
    ASSERT_EQ(hex_storeBytes(h, 0x10, bytes, 4), 4u);
    ASSERT_TRUE(hex_preserveData(h, 0x11, 0x11, 1));
    char *log = nullptr;
    size_t size = 0;
    romweld.log.fp = open_memstream(&log, &size);
    romweld_arg a;
    a.str = text;
    ASSERT_EQ(parseDELETE(&a) + parseREPLACE(&a), MATCH_OK);
    const bool replace = a.id == ARGT_REPLACE;
    g_lines.clear();
    EXPECT_EQ(a.op(&a), !replace) << text;
    std::fclose(romweld.log.fp);
    romweld.log.fp = nullptr;
    const std::string changed = replace ? ", replaced with (BBh)\n" : " and deleted\n";
    EXPECT_EQ(std::string(log, size), "### OP Code find / replace / delete results ###\n"
                                      " Search results for OPCode (AAh & FFh): (" +
                                          std::string(text) + ")\n  found (AAh) at address 10h" +
                                          changed + "  found (AAh) at address 11h" +
                                          "  found (AAh) at address 12h" + changed);
    std::free(log);
    EXPECT_EQ(g_lines, std::vector<std::string>{"cannot delete 1 byte(s) of preserved data at 0x11"});
    EXPECT_EQ(hex_getByte(h, 0x11), 0xAA);
  }
}

// Overlapping matches changed one by one (a preserved byte keeps their
// stretch from changing at once) show the bytes the search found, also
// those that the delete of the match before took.
TEST_F(FindOption, OverlappingDeletesShowTheBytesFound) {
  romweld.hex = ihex_create();
  hexdata *h = ihex_getImage(romweld.hex);
  const uint8_t bytes[] = {0xA1, 0xA2, 0xA3, 0xA4, 0};
  ASSERT_EQ(hex_storeBytes(h, 0x10, bytes, 5), 5u);
  ASSERT_TRUE(hex_preserveData(h, 0x13, 0x13, 1));
  char *log = nullptr;
  size_t size = 0;
  romweld.log.fp = open_memstream(&log, &size);
  romweld_arg a;
  a.str = "-find=A0A0MF0F0@0-FF,delete";
  ASSERT_EQ(parseDELETE(&a), MATCH_OK);
  EXPECT_TRUE(a.op(&a));
  std::fclose(romweld.log.fp);
  romweld.log.fp = nullptr;
  const std::string text(log, size);
  std::free(log);
  EXPECT_EQ(text.substr(text.find("  found")), "  found (A2A1h) at address 10h and deleted\n"
                                               "  found (A3A2h) at address 11h and deleted\n"
                                               "  found (A4A3h) at address 12h");
}

} // namespace
