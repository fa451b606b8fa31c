// What every option family's parser makes of a text: the record it fills,
// in one line, or the exact messages it draws. The texts go through the
// parsers in their fixed order, as on the command line. What the options
// then do to an image: the engines' tests and test/cli.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "image/testutil.h"
#include "romweld/args.h"
#include "romweld/options.h"
#include "romweld/testutil.h"

namespace {

using optest::lines;
using testutil::hexBytes;

std::string describe(const fill_arg &a) {
  const fillspec &f = a.spec;
  std::string v;
  for (uint64_t x : f.values)
    v.append(v.empty() ? "" : ",").append(alert_format("%lX", x));
  return alert_format("w%u %s inc=%d %lX-%s m%u", f.width, v.c_str(), f.increment, f.range.start,
                      f.range.hasEnd ? alert_format("%lX", f.range.end).c_str() : "", f.mode);
}

std::string describe(const mask_arg &a) {
  return alert_format("%s %lX-%lX", hexBytes(a.spec.masks).c_str(), a.spec.range.start,
                      a.spec.range.end);
}

// "[+]g<algorithm> <start>-<end>@<dest> w<width> be|le" and the controls given.
std::string describe(const ck_arg &a) {
  const ckspec &s = a.spec;
  std::string out = alert_format("%sg%d ", s.policy.clobber ? "+" : "", s.algorithm);
  out += s.range.hasStart ? alert_format("%lX-%lX", s.range.start, s.range.end) : "norange";
  out += alert_format("@%lX w%u %s", s.resultDest, s.resultWidth, s.bigEndianResult ? "be" : "le");
  out += s.offset ? alert_format(" +%lX", s.offset) : "";
  out += s.poly ? alert_format(" p%lX", s.poly) : "";
  out += s.xorValue ? alert_format(" o%lX", s.xorValue) : "";
  out += s.revWordWidth ? alert_format(" r%u", s.revWordWidth) : "";
  out += s.skipWordWidth ? alert_format(" s%u.%u", s.skipWordWidth, s.skipBytes) : "";
  if (!s.codeBytes.empty())
    out += " t" + hexBytes(s.codeBytes) + alert_format(".%u", s.codeBase);
  return out;
}

// "<code>&<mask>@<start>-<end>/<align>[!] [w] <title> [no-overlap] [=<replacement>&<mask>]"
std::string describe(const find_arg &f) {
  std::string s = alert_format("%s&%s@%lX-%lX/%lu%s%s %s%s", hexBytes(f.spec.code).c_str(),
                               hexBytes(f.spec.mask).c_str(), f.spec.range.start, f.spec.range.end,
                               f.spec.alignment, f.alignGiven ? "!" : "", f.warn ? " w" : "",
                               f.title.c_str(), f.spec.overlap ? "" : " no-overlap");
  if (!f.replacement.empty())
    s += " =" + hexBytes(f.replacement) + "&" + hexBytes(f.replacementMask);
  return s;
}

template <class Spec> std::string describe(const Spec &) { return "(no description)"; }

// The messages, each followed by " | " but the last; then, when the text
// parses, "=> ", the kind's name and its record.
std::string parse(const char *text) {
  lines.clear();
  romweld_arg a;
  a.str = text;
  int r = MATCH_NONE;
  for (size_t i = 0; i < argt_parserCount && r == MATCH_NONE; ++i) {
    hex_clearErrors();
    r = argt_parserOrder[i].parse(&a);
  }
  std::string out;
  for (const std::string &l : lines)
    out += (out.empty() ? "" : " | ") + l;
  if (r == MATCH_NONE)
    return "no option";
  if (r == MATCH_OK) {
    EXPECT_NE(a.op, nullptr);
    out += std::string(out.empty() ? "" : " ") + "=> " + argt_rowOf(a.id)->name + " " +
           std::visit([](const auto &s) { return describe(s); }, a.spec);
  }
  return out;
}

struct Parse : optest::OptionTest {};

TEST_F(Parse, EachTextFillsItsRecordOrSaysWhatIsWrong) {
  set_maxerrors(1000); // every refused row is one error
  const std::pair<const char *, const char *> rows[] = { // text, what it draws
      // -FILL and -MASK
      {"-FILL=0xFF@0x100:0x103", "=> -FILL w2 FF inc=0 100-103 m0"}, // a constant is 16-bit
      {"-fill=W4:5,076,0b1101@8",
       "=> -FILL w4 5,76,B1101 inc=0 8- m0"}, // "0b" is no binary prefix here
      {"-FILL=w8:FFFFFFFFFFFFFFFF@0", "=> -FILL w8 FFFFFFFFFFFFFFFF inc=0 0- m0"},
      {"-FILL=0xAA55-=0x1111@1:0x7FF", "=> -FILL w2 AA55 inc=-4369 1-7FF m0"},
      {"-FILL=w4:0+=4294967295@0:010", "=> -FILL w4 0 inc=-1 0-8 m0"}, // octal end
      {"-FILL=1@0:0x100,DATA", "=> -FILL w2 1 inc=0 0-100 m3"},
      {"-FILL=1@5,data", "=> -FILL w2 1 inc=0 5- m3"},
      {"+-FILL=1@0", "'+' prefix is not supported by -fill (warning) => -FILL w2 1 inc=0 0- m0"},
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
      {"-MASK=3FFF@0-1FFF", "=> -MASK 3FFF 0-1FFF"},
      {"-mask=0x3FF@10-20",
       "mask bytes contains an uneven number of nibbles and will be truncated to \"3F\" (warning) "
       "=> -MASK 3F 10-20"}, // an odd last digit is dropped
      {"+-MASK=0F@0-1", "'+' prefix is not supported by -mask (warning) => -MASK 0F 0-1"},
      {"-MASK=0F", "cannot determine address range to apply mask"},
      {"-MASK=0F@0-1x", "garbage (\"x\") at the end of option"},
      {"-MASK=0F@20-10", "end address must be >= start address"},
      // -CK: every control; a hash's width is in bits and picks the hash; each trailing code byte
      // that reaches the range warns
      {"-CK=0-1FFF@5FFC+1234g5t34w-2p1021offffr2s4.2",
       "=> -CK g5 0-1FFF@5FFC w2 le +1234 p1021 oFFFF r2 s4.2 t34.1"},
      {"+-cK=0-FF@100G-5W8P1B", "=> -CK +g-5 0-FF@100 w8 be p1B"},
      {"-CK=0-FF@100g10w160", "=> -CK g11 0-FF@100 w20 be"},
      {"-CK=0-FF@100g10w-256", "=> -CK g10 0-FF@100 w32 le"},
      {"-CK=0-FF@100g10w512", "unsupported SHA digest bit-size (512); defaulting to 256 (warning) "
                              "=> -CK g10 0-FF@100 w32 be"},
      {"-CK=0-FF@100g11w160",
       "result width for specified algorithm (11) must be >= 20 and <= 20 bytes"},
      {"-CK=0-FF@80g1", "checksum result destination (0x80) overlaps with checksum range (warning) "
                        "=> -CK g1 0-FF@80 w8 le"},
      {"-CK=100-1FF@FEg1w2t0000", "trailing code bytes cause result to overlap with checksum range "
                                  "(warning) | trailing code bytes cause result to overlap with "
                                  "checksum range (warning) => -CK g1 100-1FF@FE w2 be t0000.1"},
      {"-CK=0-FF@100g1w4t123.2",
       "trailing code bytes contains an uneven number of nibbles and will be truncated to \"23\" "
       "(warning) => -CK g1 0-FF@100 w4 be t23.2"},
      {"-CK=0-FF@100g1o5",
       "selected algorithm does not use XOR value (warning) => -CK g1 0-FF@100 w8 le o5"},
      {"-CK=FF-0@100g1", "=> -CK g1 norange@100 w8 le"}, // intended: the operation finds no range
      {"-CK=0-FF@100g5w2s0", "=> -CK g5 0-FF@100 w2 be"},
      {"-CK=0-FF@100", "no checksum algorithm specified"},
      {"-CK=0-FF@100w9", "no checksum algorithm specified"},
      {"-CK=0-FFg6", "unknown/unsupported checksum algorithm (6)"},
      {"-CK=0-FFg1", "no destination address specified"},
      {"-CK=0-FF@100g1w9", "result width for specified algorithm (1) must be >= 1 and <= 8 bytes"},
      {"-CK=0-FF@100g7w-4", "result width for specified algorithm (7) must be >= 2 and <= 2 bytes"},
      {"-CK=0-FF@100g1w2t00.3", "the number of hash bytes to which the trailing code is appended "
                                "(3) must be no greater than the hash width (2)"},
      {"-CK=0-FF@100g1w2t00.0", "the number of bytes appended with trailing code must be > 0"},
      {"-CK=0-FF@100g1w4t00.3", "the hash width (4) must be a multiple of the number of hash bytes "
                                "appended with a trailing code (3)"},
      {"-CK=0-FF@100g5w2s1", "skip-word width must be greater than 1 or zero (disabled)"},
      {"-CK=0-FF@100g5w2s4.4", "number of bytes for byte skip with hash calculation must be "
                               "non-zero and less than the skip width"},
      {"-CK=0-FF@100g1r-1", "reverse-word width must be a positive decimal or zero (disabled)"},
      {"-CK=0-FF@100g1g2", "can only specify one checksum algorithm"},
      {"-CK=0-FF@100g1s2.1s2", "can only specify one skip-word width"},
      {"-CK=0-FF@100g1x1", "cannot interpret \"x1\""},
      {"-CK=0-FF@100g1w", "cannot determine result width"},
      {"-CK0-FF@100g1", "malformed option"},
      // -FIND, ,REPLACE and ,DELETE
      {"-find=3412@0-FF", "=> -FIND 3412&FFFF@0-FF/1 OPCode"},
      {"-FIND=C000FFE8mF000F000@100-1FF/2Wt#ADD##,REPLACE=5200FFFFMFF00FFFF",
       "=> ,REPLACE C000FFE8&F000F000@100-1FF/2! w \" ADD  \" no-overlap =5200FFFF&FF00FFFF"},
      {"+-Find=12@0-1/10,Delete",
       "'+' prefix is not supported by -find (warning) => ,DELETE 12&FF@0-1/10! OPCode"},
      {"-find=123@0-1,replace=45",
       "search-code contains an uneven number of nibbles and will be truncated to \"12\" (warning) "
       "=> ,REPLACE 12&FF@0-1/1 OPCode no-overlap =45&FF"},
      {"-findx", "malformed option"},
      {"-find=12M3434@0-1", "the search-mask must have the same length as the find-code"},
      {"-find=12MFFMFF@0-1", "can only specify one code-mask"},
      {"-find=12/2@0-1/2", "can only specify the search-alignment once"},
      {"-find=12/0@0-1", "cannot have a search-alignment of 0"},
      {"-find=12/0", "no address range specified"},
      {"-find=12@0-1t", "title is an empty string"},
      {"-find=12@0-1x", "garbage (\"x\") at the end of option"},
      {"-find=12@0-1,replace=34,DELETE", "cannot mix \"replace\" with \"delete\""},
      {"-find=12@0-1,delete,replace=34", "cannot mix \"replace\" with \"delete\""},
      {"-find=12@0-1x,Replace=34", "garbage (\"x\") before \"replace\" sub-option"},
      {"-find=12@0-1,replace", "malformed option"},
      {"-find=12@0-1,replace=3456",
       "the replacement code must have the same length as the serach-code"},
      {"-find=12@0-1,replace=34MFFFF",
       "the replacement mask must have the same length as the replacement code"},
      {"-find=12@0-1tX,delete=", "garbage (\"=\") at the end of option"},
      {"-find=12@0-1w:,delete", "garbage (\":\") before \"delete\" sub-option"},
      // -SERIAL, -STRING and -STRPACK
      {"-SERIAL1234@0", "malformed option"},
      {"-SERIAL=@1000", "code-sequence is empty"},
      {"-SERIAL=12-1", "no storage address has been specified"},
      {"-SERIAL=12@", "cannot determine storage address"},
      {"-SERIAL=12@0r0", "repititions must be > 0"},
      {"-SERIAL=12@0+2r3q", "garbage (\"q\") at the end of option"},
      {"-STRING3000=x", "unable to determine the address to store the string"},
      {"-STRING@3000t0D", "unable to determine the string"},
      {"-STRPACK@3000t00=AB", "packed strings cannot have trailing code-bytes"},
      // Output control
      {"-LOGFILE", "no log-file specified"},
      {"-LOGFILE=", "no log-file specified"},
      {"-LOGFILEX", "malformed option"},
      {"-SIZEX", "malformed option"},
      {"-FORMAT=INHX32,16x", "garbage (\"x\") at the end of option"},
      {"-FORMAT=INHX32X", "garbage (\"X\") at the end of option"}, // intended: INHX32, then "X"
      {"-FORMAT", "malformed option"},
      {"-FORMAT=INHX32,", "cannot determine maximum data record length"},
      {"-BREAK=4000,,8000", "cannot determine \"address break(s)\""},
      {"-BREAK=", "break must have a comma-separated list of hexadecimal addresses"},
      {"-BREAK=4000;8000", "break must have a comma-separated list of hexadecimal addresses"},
      {"-BREAK=FFFFFFFFFFFFFFFF", "address breaks must be <= 0xFFFFFFFFFFFFFFFE"},
      {"-BREAK", "malformed option"},
      {"-ADDRESSING=0", "addressing must be > 0 and <= 8"},
      {"-ADDRESSING=9", "addressing must be > 0 and <= 8"},
      {"--SLA=123456789", "\"start linear address\" is too wide, it must be <= 4 bytes"},
      {"--SSA", "malformed option"},
      // Input files: the range and offset prefixes
      {"r0-1r2-3,x.hex", "can only specify one range"},
      {"s1s2,x.hex", "can only specify one offset"},
      {"r200-100,x.hex", "end address must be >= start address"},
      {"r100-1FFs-200,x.hex", "offset would place data below address 0"},
      {"s-200r100-1FF,x.hex", "offset would place data below address 0"},
      {"q1,x.hex", "malformed option"},
      // The range and code string helpers
      {"-MASK=FF@10", "range requires an end address"},
      {"-MASK=FF@10:20", "range requires an end address"},
      {"-MASK=FF@5-", "cannot determine end address"},
      {"-MASK=FF@10000000000000000-1", "start address is too wide, it must be <= 8 bytes"},
      {"-MASK=FF@1-10000000000000000", "end address is too wide, it must be <= 8 bytes"},
      {"-SERIAL=-12@0", "code-sequence must be in unsigned hexadecimal"},
      {"-SERIAL=0x@0", "code-sequence is empty"},
      // Intended: truncating the only nibble leaves nothing, then no code.
      {"-CK=0-1@2g1tA", "trailing code bytes contains an uneven number of nibbles and will be "
                        "truncated to \"\" (warning) | trailing code bytes is empty"},
      // "-ck" claims a file name that begins with it.
      {"-CKSUM.hex", "malformed option"},
      {"-C=0-1@2g1", "no option"},
  };
  for (auto [text, want] : rows)
    EXPECT_EQ(parse(text), want) << text;
}

} // namespace
