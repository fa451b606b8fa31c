// -FILL and -MASK option texts: what each parser makes of a text, as record
// fields, or the one message it issues. What the options then do to an
// image is seen in test/cli (fill.test, mask.test).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/alert.h"
#include "romweld/args.h"
#include "romweld/options.h"
#include "romweld/settings.h"

namespace {

std::vector<std::string> g_lines;
void collect(const char *line) { g_lines.push_back(line); }

std::string fields(const fillspec &f) {
  std::string v;
  for (uint64_t x : f.values)
    v.append(v.empty() ? "" : ",").append(alert_format("%lX", x));
  return alert_format("w%u %s inc=%d %lX-%s m%u", f.width, v.c_str(), f.increment,
                      f.range.start, f.range.hasEnd ? alert_format("%lX", f.range.end).c_str() : "",
                      f.mode);
}

std::string fields(const maskspec &m) {
  std::string v;
  for (uint8_t x : m.masks)
    v += alert_format("%02X", x);
  return alert_format("%s %lX-%lX", v.c_str(), m.range.start, m.range.end);
}

// Each text: its first message, if any, then " | " and the record's fields
// when it parses.
TEST(FillMaskParse, Table) {
  struct Row {
    const char *text;
    const char *want;
  };
  const Row rows[] = {
      {"-FILL=0xFF@0x100:0x103", "w2 FF inc=0 100-103 m0"}, // a constant is 16-bit
      // The help's own list: "0b" is no binary prefix here (value grammar).
      {"-fill=W4:5,076,0b1101@8", "w4 5,76,B1101 inc=0 8- m0"},
      {"-FILL=w8:FFFFFFFFFFFFFFFF@0", "w8 FFFFFFFFFFFFFFFF inc=0 0- m0"},
      {"-FILL=0xAA55-=0x1111@1:0x7FF", "w2 AA55 inc=-4369 1-7FF m0"},
      {"-FILL=w4:0+=4294967295@0:010", "w4 0 inc=-1 0-8 m0"}, // octal end
      {"-FILL=1@0:0x100,DATA", "w2 1 inc=0 0-100 m3"},
      {"-FILL=1@5,data", "w2 1 inc=0 5- m3"},
      {"+-FILL=1@0", "'+' prefix is not supported by -fill | w2 1 inc=0 0- m0"},
      {"-FILLx", "malformed option"},
      {"-FILL=w9:1@0", "word-width must be a decimal <= 8 and >= 1"},
      {"-FILL=w1@0", "cannot find the start of the fill expressions"},
      {"-FILL=w2:0x12345@0", "fill-constant (0x12345) is larger than specified width (2 bytes)"},
      {"-FILL=1", "cannot determine start address"},
      {"-FILL=@unused", "cannot determine fill-constant"},
      {"-FILL=1;2@0", "unexpected character (';') in option"},
      {"-FILL=1+1@0", "an increment is specified with += or -="},
      {"-FILL=1,2+=1@0", "and inc/decrement cannot be applied to series of fill-constants"},
      {"-FILL=1+=0x100000000@0", "inc/decrement is too wide, it must be <= 4 bytes"},
      {"-FILL=1+=1:0", "cannot determine start address"},
      {"-FILL=1@0x10:0xF", "and address must be >= start address"}, // intended wording
      {"-FILL=1@0:0x100,data,x", "garbage (\",data,x\") at the end of option"},
      {"-MASK=3FFF@0-1FFF", "3FFF 0-1FFF"},
      {"-mask=0x3FF@10-20", // an odd last digit is dropped
       "mask bytes contains an uneven number of nibbles and will be truncated to \"3F\" | 3F 10-20"},
      {"+-MASK=0F@0-1", "'+' prefix is not supported by -mask | 0F 0-1"},
      {"-MASK=0F", "cannot determine address range to apply mask"},
      {"-MASK=0F@0-1x", "garbage (\"x\") at the end of option"},
      {"-MASK=0F@20-10", "end address must be >= start address"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    alert_resetForTests(); // no error limit across rows
    alert_setSink(collect);
    romweld_reset();
    g_lines.clear();
    romweld_arg a;
    a.str = row.text;
    const bool mask = a.str.find("ASK") != std::string::npos || a.str.find("ask") != std::string::npos;
    const int r = mask ? parseMASK(&a) : parseFILL(&a);
    std::string got;
    if (!g_lines.empty()) {
      const size_t at = g_lines[0].find("argument : ");
      got = g_lines[0].substr(at == std::string::npos ? 0 : at + 11);
      got = got.substr(0, std::min(got.find(" (warning)"), got.find('\n')));
      EXPECT_EQ(r, g_lines[0].find("(warning)") != std::string::npos ? MATCH_OK : MATCH_ERROR);
    }
    if (r == MATCH_OK) {
      got += (got.empty() ? "" : " | ") +
             (mask ? fields(arg_spec<mask_arg>(&a).spec) : fields(arg_spec<fill_arg>(&a).spec));
      EXPECT_EQ(a.op, mask ? doMASK : doFILL);
    }
    EXPECT_EQ(got, row.want);
    EXPECT_EQ(a.id, mask ? ARGT_MASK : ARGT_FILL);
  }
  alert_setSink(nullptr);
  romweld_reset();
}

} // namespace
