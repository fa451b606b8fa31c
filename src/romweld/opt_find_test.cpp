// -FIND, ,REPLACE and ,DELETE below the command line: the preserved-run
// refusal, which no option on the command line can set up yet. What users
// see of a run is in test/cli/find.test; parsing in parse_test.cpp.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "image/hexobject.h"
#include "romweld/args.h"
#include "romweld/options.h"
#include "romweld/testutil.h"

namespace {

using optest::lines;

struct FindOption : optest::OptionTest {
  // Runs text, parsed as a delete or a replace, over bytes stored from 0x10
  // with the byte at `preserved` preserved; *ok is the operation's result.
  // Returns the log it wrote.
  std::string run(const char *text, const std::vector<uint8_t> &bytes, uint64_t preserved, bool *ok) {
    romweld_reset();
    romweld.hex = ihex_create();
    hexdata *h = ihex_getImage(romweld.hex);
    EXPECT_EQ(hex_storeBytes(h, 0x10, bytes.data(), bytes.size()), bytes.size());
    EXPECT_TRUE(hex_preserveData(h, preserved, preserved, 1));
    char *log = nullptr;
    size_t size = 0;
    romweld.log.fp = open_memstream(&log, &size);
    a.str = text;
    EXPECT_EQ(parseDELETE(&a) + parseREPLACE(&a), MATCH_OK);
    lines.clear();
    *ok = a.op(&a);
    std::fclose(romweld.log.fp);
    romweld.log.fp = nullptr;
    const std::string out(log, size);
    std::free(log);
    return out;
  }
  romweld_arg a;
};

// A preserved byte refuses its match with the delete's words, for a replace
// too, and leaves that match's log line without its end; the other matches
// are still changed. The refusal fails a replace, never a delete.
TEST_F(FindOption, PreservedRunsAreRefusedOneByOne) {
  for (const char *text : {"-find=AA@0-FF,replace=BB", "-find=AA@0-FF,delete"}) {
    SCOPED_TRACE(text);
    bool ok = false;
    const std::string log = run(text, {0xAA, 0xAA, 0xAA, 0x00}, 0x11, &ok);
    const bool replace = a.id == ARGT_REPLACE;
    EXPECT_EQ(ok, !replace);
    const std::string changed = replace ? ", replaced with (BBh)\n" : " and deleted\n";
    EXPECT_EQ(log, "### OP Code find / replace / delete results ###\n"
                   " Search results for OPCode (AAh & FFh): (" +
                       std::string(text) + ")\n  found (AAh) at address 10h" + changed +
                       "  found (AAh) at address 11h" + "  found (AAh) at address 12h" + changed);
    EXPECT_EQ(lines, std::vector<std::string>{"cannot delete 1 byte(s) of preserved data at 0x11"});
    EXPECT_EQ(hex_getByte(ihex_getImage(romweld.hex), 0x11), 0xAA);
  }
}

// Overlapping matches changed one by one (a preserved byte keeps their
// stretch from changing at once) show the bytes the search found, also
// those that the delete of the match before took.
TEST_F(FindOption, OverlappingDeletesShowTheBytesFound) {
  bool ok = false;
  const std::string log = run("-find=A0A0MF0F0@0-FF,delete", {0xA1, 0xA2, 0xA3, 0xA4, 0}, 0x13, &ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(log.substr(log.find("  found")), "  found (A2A1h) at address 10h and deleted\n"
                                             "  found (A3A2h) at address 11h and deleted\n"
                                             "  found (A4A3h) at address 12h");
}

} // namespace
