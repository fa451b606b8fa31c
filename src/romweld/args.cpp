#include "romweld/args.h"

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "common/alert.h"
#include "image/hex_errno.h"
#include "romweld/log.h"
#include "romweld/options.h"
#include "romweld/output.h"
#include "romweld/settings.h"
#include "romweld/usage.h"

// The help listing shows the rows in this order; `id` is the kind.
const argt_row argt_table[19] = {
    {ARGT_INFILE, "file.hex", "[r[start]-[end]][sOffset],%s",
     "Specify a hex input file. Optionally restrict input to r[start]-[end] range. "
     "Optionally address-shift code by [Offset]",
     "r0-1FFs1F00%s,"},
    {ARGT_ADDRESSING, "-ADDRESSING", "%s=addrFormat",
     "Specify the native input format for all address components in romweld options. "
     "(1 = byte address, 2 = word address)",
     "%s=1"},
    {ARGT_BREAK, "-BREAK", "%s=addr1[,addr2,...,addr10]",
     "Continuous data will break and recommence with a new record at these addresses.",
     "%s=4000,8000"},
    {ARGT_CHECKSUM, "-CK",
     "%s=start-end@dest[+offset][wWidth][tCode][gAlgorithm][pPolynomial][oXor][rWidth]"
     "[sWidth[.Bytes]]",
     "Calculate a checksum between start and end addresses, store result at destination "
     "address."
     "\n\tOptional controls are '+' add initial offset,"
     "\n\t'w' non-zero width of result (in bits for SHA, bytes for all other algorithms; "
     "use negative width for little-endian result),"
     "\n\t't' specify trailing hexcode for each byte in result and optionally the number "
     "of bytes to output before each trailing code (defaults to one),"
     "\n\t'g' select which algorithm to use when calculating a hash,"
     "\n\t'p' specify polynomial value when using CRC algorithms,"
     "\n\t'o' specify a value to xor the final result of CRC algorithms with,"
     "\n\t'r' calculate hash with data reserved in word of this width,"
     "\n\t's' skip bytes in each word when calculating a hash, specify the word width and "
     "optionally the number of bytes to skip (defaults to one)",
     "%s=0-1FFF@5FFC+1234g5t34w-2p1021offffr2s4.2"},
    {ARGT_DELETE, ",DELETE", "",
     "Only used in conjunction with -FIND and not with any other specification. If the "
     "find code is found, delete it"
     "\n\tSee also -FIND",
     "%s=5200FFFFMFF00FFFF"},
    {ARGT_FILL, "-FILL", "%s=[wN:]fill_expr@address[:end_address]",
     "Specify a code for filling unused memory locations within an address range, where"
     "\n\t\"fill_expr\" can be a constant (e.g. 0x1234), a comma-separated list of "
     "constants (e.g. 5,076,0b1101)"
     "\n\tor a constant followed by an increment/decrement value (e.g. 0+=1 or "
     "0xAA55-=0x1111)."
     "\n\t\"wN\" is the width of each constant in bytes, specified by the numeral, N."
     "\n\tSpecifying \"@address\" will put the fill expression at the address, while "
     "\"@address:end_address\" will fill an address range.\n",
     "%s=0x1234+=0x78@1:0x7FF"},
    {ARGT_FIND, "-FIND",
     "%s=findcode[Mbitmask]@start-end[/align][w][tTitle]([,REPLACE=...]|[,DELETE])",
     "Find occurances of an opcode within an address range, optionally masked with "
     "Mbitmask."
     "\n\tThe numeral following the '/' specifies the X byte boundary that matching "
     "op-codes must align with."
     "\n\tBy adding 'w' romweld will issue a warning each time the opcode is found."
     "\n\tText trailing the optional 't' is an explanitory title for this search. "
     "(Titles make warnings/logs more descriptive)"
     "\n\t-FIND can be trailed with a ,REPLACE or DELETE specification.",
     "%s=C000FFE8MF000F000@0-FFFF/2wt\"ADD Instruction\",REPLACE..."},
    {ARGT_FORMAT, "-FORMAT", "%s=INHXtype[,reclength]",
     "Specify what type of Intel HEX file to generate [INHX8M/INHX16/INHX32/INHX032] and "
     "maximum number of bytes per record",
     "%s=INHX8M,16"},
    {ARGT_HELP, "-HELP", "%s=option",
     "Display all command line options, or show usage of one specific option.", "%s=CK"},
    {ARGT_LOGFILE, "-LOGFILE", "%s=filename", "Save a descriptive report to this file",
     "%s=logfile.txt"},
    {ARGT_MASK, "-MASK", "%s=hexcode@start-end",
     "This hexadecimal mask will be logically ANDed with data in the address range given",
     "%s=3FFF@0-1FFF"},
    {ARGT_OUTFILE, "-O", "%sfilename", "Save the output to the file specified",
     "%soutput.hex"},
    {ARGT_SERIAL, "-SERIAL", "%s=value[+/-incr]@address[+/-interval][r<repetitions>]",
     "Store a hex code (or series of codes) at a fixed address. Eg. serial number",
     "%s=1234@3000"},
    {ARGT_SIZE, "-SIZE", "%s", "Calculate the total data size of the HEX file", "%s"},
    {ARGT_STRING, "-STRING", "%s@address[tCode]=\"Some string\"",
     "Embed an ASCII string at a fixed address Eg. time stamp. Optional 't' control = "
     "trail each byte in string with this hexcode",
     "%s@3000=\"My favourite string\\n\""},
    {ARGT_STRPACK, "-STRPACK", "%s@address=\"Some string\"",
     "Embed and string-pack an ASCII string at a fixed address",
     "%s@3000=\"My favourite packed string\\n\""},
    {ARGT_REPLACE, ",REPLACE", "%s=replacecode[Mbitmask]",
     "Only used in conjunction with -FIND and not with any other specification. If the "
     "find code is found, replace it with this code"
     "\n\tSee also -FIND",
     "%s=5200FFFFMFF00FFFF"},
    {ARGT_SLA, "--SLA", "%s=address",
     "Set type 5 record, Start Linear Address, to the given address", "%s=0x40000"},
    {ARGT_SSA, "--SSA", "%s=address",
     "Set type 3 record, Start Segment Address, to the given address", "%s=0x40000"},
};

const argt_row *argt_rowOf(uint32_t id) {
  for (const argt_row &row : argt_table)
    if (row.id == id)
      return &row;
  return nullptr;
}

// The first parser that does not answer "no match" owns the text, so the
// order decides between overlapping words: ",delete" and ",replace" are
// tried before the plain -FIND, "-strpack" before "-string".
const argt_parserEntry argt_parserOrder[] = {
    {parseINFILE, {ARGT_INFILE, 0}},
    {parseSLA, {ARGT_SLA, 0}},
    {parseSSA, {ARGT_SSA, 0}},
    {parseADDRESSING, {ARGT_ADDRESSING, 0}},
    {parseBREAK, {ARGT_BREAK, 0}},
    {parseCHECKSUM, {ARGT_CHECKSUM, 0}},
    {parseFILL, {ARGT_FILL, 0}},
    {parseDELETE, {ARGT_DELETE, 0}},
    {parseREPLACE, {ARGT_REPLACE, 0}},
    {parseFORMAT, {ARGT_FORMAT, 0}},
    {parseMASK, {ARGT_MASK, 0}},
    {parseOUTFILE, {ARGT_OUTFILE, 0}},
    {parseSERIAL, {ARGT_SERIAL, 0}},
    {parseSIZE, {ARGT_SIZE, 0}},
    {parseSTRING, {ARGT_STRING, ARGT_STRPACK}},
    {parseFIND, {ARGT_FIND, 0}},
    {parseLOGFILE, {ARGT_LOGFILE, 0}},
    {parseHELP, {ARGT_HELP, 0}},
};
const size_t argt_parserCount = sizeof argt_parserOrder / sizeof argt_parserOrder[0];

namespace {

std::vector<std::unique_ptr<romweld_arg>> g_args;

// ---- stage work of the pipeline -----------------------------------------

// Help replaces the run: nothing is read or written after it.
step_result endAfterHelp(size_t ran) { return ran > 0 ? STEP_DONE : STEP_NEXT; }

// The output's directory and the log are checked, and the log opened,
// before anything is read.
step_result prepareFiles(size_t) {
  hex_clearErrors();
  return output_prepare() ? STEP_NEXT : STEP_FAIL;
}

step_result outputDefaults(size_t) {
  if (!romweld.output.format)
    romweld.output.format = outformat_default();
  if (romweld.output.maxLength == 0)
    romweld.output.maxLength = 16;
  return STEP_NEXT;
}

// Masks, fills and the output need an image even when no file was read.
step_result ensureImage(size_t) {
  if (romweld.hex)
    return STEP_NEXT;
  romweld.hex = ihex_create();
  return STEP_NEXT;
}

step_result writeOutput(size_t) { return output_write() ? STEP_NEXT : STEP_FAIL; }

// The log's text is completed before either file is put in place.
step_result closeLog(size_t) { return output_closeLog() ? STEP_NEXT : STEP_FAIL; }

step_result placeFiles(size_t) { return output_place() ? STEP_DONE : STEP_FAIL; }

} // namespace

// Kinds run grouped in this order, not in command-line order: inputs are
// merged before anything changes the image, and the three mask passes catch
// merged data, fills and stored checksums alike.
const argt_step argt_steps[] = {
    {1, 1, {ARGT_HELP}, false, endAfterHelp},
    {2, 2, {}, false, prepareFiles},
    {3, 3, {ARGT_ADDRESSING, ARGT_FORMAT}, false, nullptr},
    {4, 4, {}, false, outputDefaults},
    {5, 5, {ARGT_SLA, ARGT_SSA}, false, nullptr},
    {6, 6, {ARGT_INFILE}, false, nullptr},
    {7, 7, {}, false, ensureImage},
    {8, 8, {ARGT_MASK}, false, nullptr},
    {9, 9, {ARGT_FIND, ARGT_DELETE, ARGT_REPLACE}, true, nullptr},
    {10, 10, {ARGT_SERIAL}, true, nullptr},
    {11, 11, {ARGT_STRING, ARGT_STRPACK}, true, nullptr},
    {12, 12, {ARGT_FILL}, false, nullptr},
    {13, 13, {ARGT_MASK}, false, nullptr},
    {14, 14, {ARGT_CHECKSUM}, false, nullptr},
    {15, 15, {ARGT_MASK}, false, nullptr},
    {16, 16, {ARGT_BREAK, ARGT_OUTFILE}, false, nullptr},
    {17, 17, {ARGT_SIZE}, false, nullptr},
    {18, 21, {}, false, writeOutput},
    {22, 22, {}, false, closeLog},
    {23, 23, {}, false, placeFiles},
};
const size_t argt_stepCount = sizeof argt_steps / sizeof argt_steps[0];

// ---- adding arguments -------------------------------------------------------

bool args_add(const std::string &text) {
  auto a = std::make_unique<romweld_arg>();
  a->str = text;
  for (const argt_parserEntry &p : argt_parserOrder) {
    hex_clearErrors();
    int r = p.parse(a.get());
    if (r == MATCH_NONE)
      continue;
    if (r == MATCH_OK) {
      ROMWELD_ASSERT(a->id != 0);
      g_args.push_back(std::move(a));
      return true;
    }
    ROMWELD_ASSERT(r == MATCH_ERROR);
    const argt_row *row = argt_rowOf(a->id != 0 ? a->id : p.kinds[0]);
    ROMWELD_ASSERT(row != nullptr);
    usage_printBlock(row->name, row->help, row->usage, row->example);
    return false;
  }
  alert<168>(text.c_str());
  return false;
}

bool args_addList(const std::vector<std::string> &list) {
  for (const std::string &s : list)
    if (!args_add(s))
      return false;
  return true;
}

romweld_arg *args_append(std::unique_ptr<romweld_arg> a) {
  ROMWELD_ASSERT(a != nullptr && a->id != 0);
  g_args.push_back(std::move(a));
  return g_args.back().get();
}

const std::vector<std::unique_ptr<romweld_arg>> &args_all() { return g_args; }

void args_reset() {
  // Settings first: the run's image holds notes that point at the records.
  romweld_reset();
  g_args.clear();
}

// ---- processing -------------------------------------------------------------

namespace {

bool inStep(const argt_step &s, uint32_t id) {
  for (uint32_t k : s.kinds)
    if (k != 0 && k == id)
      return true;
  return false;
}

// Runs the step's records; false as soon as one operation asks to stop.
bool runRecords(const argt_step &s, size_t *ran) {
  const size_t n = g_args.size();
  for (size_t i = 0; i < n; ++i) {
    romweld_arg *a = g_args[s.lastFirst ? n - 1 - i : i].get();
    if (!inStep(s, a->id) || !a->op)
      continue;
    ++*ran;
    if (!a->op(a))
      return false;
  }
  return true;
}

} // namespace

bool process(int mode) {
  ROMWELD_ASSERT(mode == 0 || mode == 1);
  if (mode == 0)
    return false;
  // A run starts from no image and byte addressing, whatever an earlier run
  // in this process left behind.
  if (romweld.hex) {
    ihex_destroy(romweld.hex);
    romweld.hex = nullptr;
  }
  romweld.addressing = 0;

  for (const argt_step &s : argt_steps) {
    size_t ran = 0;
    if (!runRecords(s, &ran))
      return false;
    switch (s.stage ? s.stage(ran) : STEP_NEXT) {
    case STEP_NEXT:
      break;
    case STEP_DONE:
      return true;
    case STEP_FAIL:
      return false;
    }
  }
  return true;
}

// ---- messages shared by every option ----------------------------------------

void arg_error(const romweld_arg *a, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string desc = alert_vformat(fmt, ap);
  va_end(ap);
  alert<1600>(a->str.c_str(), desc.c_str());
}

void arg_warning(const romweld_arg *a, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string desc = alert_vformat(fmt, ap);
  va_end(ap);
  alert<1601>(a->str.c_str(), desc.c_str());
}

const char *arg_matchWord(const romweld_arg *a, const char *word, bool *plus) {
  const char *p = a->str.c_str();
  const bool hasPlus = *p == '+';
  if (plus)
    *plus = hasPlus;
  if (hasPlus)
    ++p;
  const size_t n = std::strlen(word);
  return strncasecmp(p, word, n) == 0 ? p + n : nullptr;
}

namespace {

void plusNotSupported(const romweld_arg *a, const char *word) {
  std::string lower(word);
  for (char &c : lower)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  arg_warning(a, "'+' prefix is not supported by %s", lower.c_str());
}

} // namespace

const char *arg_claimWord(romweld_arg *a, const char *word, uint32_t id) {
  bool plus = false;
  const char *rest = arg_matchWord(a, word, &plus);
  if (!rest)
    return nullptr;
  a->id = id;
  if (plus)
    plusNotSupported(a, word);
  return rest;
}

const char *arg_open(romweld_arg *a, const char *word, uint32_t id, romweld_op op, arg_plus rule,
                     int *result, bool *plus) {
  bool given = false;
  const char *p = arg_matchWord(a, word, &given);
  if (plus)
    *plus = given;
  *result = MATCH_NONE;
  if (!p)
    return nullptr;
  a->id = id;
  a->op = op;
  *result = MATCH_ERROR;
  if (given && rule == PLUS_IGNORED_FIRST)
    plusNotSupported(a, word);
  if (*p != '=') {
    arg_error(a, "malformed option");
    return nullptr;
  }
  if (given && rule == PLUS_IGNORED)
    plusNotSupported(a, word);
  *result = MATCH_OK;
  return p + 1;
}
