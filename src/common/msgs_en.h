// The built-in English message description file. It is the file of last
// resort, the base every other message file is merged into (so it fixes the
// set of message numbers), and the reference against which the printf
// conversions of every loaded text are checked. Its version decides which
// files on disk may replace it: only those named with a version at least
// this one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr uint64_t msgs_en_version = 20220703182018ULL;

inline constexpr char msgs_en_text[] = R"MSGS(#
# romweld English message description file
#
# Format of a message line:
#   message number: (must be larger than 0)
#   blanks or tabs
#   type: F = fatal error, E = error, M = message,
#         -9 .. 8 = warning of that level
#   blanks or tabs
#   message text up to the end of the line (a printf format)
#
# errors must be in numeric order
# lines beginning with '#' are comments
#
1 M too many errors (%u)
2 M error/warning (%u) generated but no description available
3 M malformed error information on line * in file *
4 F internal error, the tool must quit
5 F internal error: this step cannot meet the image library's %s; the tool must quit
141 F can't open %s file "%s": %m
168 E unknown option "%s"
294 F can't allocate %u bytes of memory
296 F out of memory
299 F can't allocate %u bytes of memory for %s
378 F can't create %s file "%s"
413 F write error on "%s"
459 F remove failed; error: %d, %s
636 0 checksum error in Intel HEX file "%s" on line %d
917 E argument too long
928 F bad "%s" option value
941 F bad "%s" assignment; USAGE: %s%s
942 F unexpected character on line %d of file "%s"
944 F data conflict at address %Xh between %s and %s
945 F checksum range (%Xh to %Xh) contained an indeterminate value
948 F checksum result width must be between 1 and 4 bytes
949 F start of checksum range must be less than end of range
951 F start of fill range must be less than end of range
953 F unknown -HELP sub-option: %s
956 F -SERIAL value must be between 1 and %d bytes long
958 F too many input files specified; %d file maximum
960 F unexpected record type (%X) on line %d of "%s"
962 9 forced data conflict at address %s between %s and %s
963 9 checksum range includes voids or unspecified memory locations
966 9 no END record for HEX file "%s"
1030 M ROMWELD - Intel hex editing utility (Build 1.%i)
1031 M USAGE: %s [input1.hex] [input2.hex]... [inputN.hex] [options]
1032 M use -HELP=<option> for usage of these command line options
1033 M available command-line options:
1034 M type "%s" for available options
1198 F too many "%s" specifications; %d maximum
1201 F all FIND/REPLACE code specifications must be of equal width
1202 E unknown format requested in -FORMAT: %s
1203 3 unpaired nibble in %s value will be truncated
1204 F %s value must be between 1 and %d bytes long
1212 3 found %s (%sh) at address %sh
1240 E unknown checksum algorithm type (%i)
1245 F value greater than zero required for %s
1600 E "%s" argument : %s
1601 0 "%s" argument : %s
1602 E contents of the hex-data (%s) do not conform with the chosen output type (%s)
2031 1 fill range is not a multiple of the fill width, final fill value will be truncated
2032 F romweld option value limited to %u bits in size
2059 1 conflicting %s register values found in Start Segment Address record (3)
2060 0 CRC polynomial unspecified or set to 0
2061 E word width required when specifying reverse-byte-order hash
2062 E word width must be %s when specifying reverse-byte-order hash
2063 E %s address must be a multiple of the word width when performing a reverse-byte-order hash
2071 F could not find record containing hash starting address 0x%X
2072 0 only SHA256 is currently supported (set width control to 256)
2074 E word size for byte skip with hash calculation must be %s
2075 E word size required when requesting byte skip with hash calculation
2076 E number of bytes for byte skip with hash calculation must be %s
2077 E number of bytes required when requesting byte skip with hash calculation
2078 E the number of hash bytes to which the trailing code is appended (%d) must be no greater than the hash width (%d)
2079 E the hash width (%d) must be a multiple of the number of hash bytes appended with a trailing code (%d)
2082 F can't create temporary file
2090 E input S-record file (%s:%s) contains an error
2091 E record fails checksum in input S-record file (%s:%s)
2092 E count record in input S-record file (%s:%s) states %s data records, but %s precede it
2093 E input ELF file (%s) cannot be read: %s
2094 E binary output would span %s bytes (data from %sh to %sh), more than the %s bytes allowed
2095 0 start address (%sh) does not fit the termination record of the chosen output type (%s) and is written as 0
)MSGS";

inline constexpr size_t msgs_en_size = sizeof msgs_en_text - 1;

// The text of message num in the built-in file, read as the message file
// parser reads a line (number, blanks, type, one blank, text to the line
// end); empty when the file does not describe num. Usable at compile time,
// so a call site can be checked against the text it will print.
constexpr std::string_view msgs_enText(unsigned num) {
  // Plain indexing only: library searches are not constant expressions in
  // every build (the sanitizers' pointer checks).
  const char *t = msgs_en_text;
  const size_t n = msgs_en_size;
  auto blank = [](char c) { return c == ' ' || c == '\t'; };
  for (size_t at = 0; at < n;) {
    size_t eol = at;
    while (eol < n && t[eol] != '\n')
      ++eol;
    size_t i = at;
    at = eol + 1;
    if (i == eol || t[i] == '#')
      continue;
    while (i < eol && blank(t[i]))
      ++i;
    unsigned long number = 0;
    const size_t digits = i;
    for (; i < eol && t[i] >= '0' && t[i] <= '9'; ++i)
      number = number * 10 + static_cast<unsigned>(t[i] - '0');
    if (i == digits || number != num)
      continue;
    while (i < eol && blank(t[i]))
      ++i;
    while (i < eol && !blank(t[i]))
      ++i;
    return i < eol ? std::string_view(t + i + 1, eol - i - 1) : std::string_view();
  }
  return {};
}
