// Output control: -O, -FORMAT, -ADDRESSING, -BREAK, --SSA, --SLA, -SIZE and
// -LOGFILE. They decide where and how the image is written, never what it
// holds; their operations write the run-wide settings that the output stage
// and the log read.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/types.h>
#include <strings.h>

#include "image/hex_errno.h"
#include "romweld/args.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"
#include "romweld/usage.h"

namespace {

// Text after "word=", or null (with "malformed option") when no '=' follows.
const char *afterEquals(romweld_arg *a, const char *rest) {
  if (*rest != '=') {
    arg_error(a, "malformed option");
    return nullptr;
  }
  return rest + 1;
}

// "=" and one number, for the options whose value is a single number.
// Whatever follows the number is not looked at.
bool equalsNumber(romweld_arg *a, const char *rest, const char *what, unsigned maxBytes,
                  int radix, uint64_t *value) {
  if (!(rest = afterEquals(a, rest)))
    return false;
  numreq r{a, what, rest, maxBytes, radix};
  grammar_number(&r);
  *value = r.value;
  return !r.error;
}

// --SSA and --SLA share their grammar: a hexadecimal value of up to 4 bytes.
int parseStartAddress(romweld_arg *a, const char *word, const char *what, argt id,
                      romweld_op op) {
  const char *rest = arg_claimWord(a, word, id);
  if (!rest)
    return MATCH_NONE;
  uint64_t v = 0;
  if (!equalsNumber(a, rest, what, 4, RADIX_16, &v))
    return MATCH_ERROR;
  arg_newSpec<startaddr_spec>(a).value = static_cast<uint32_t>(v);
  a->op = op;
  return MATCH_OK;
}

bool applyStartAddress(romweld_arg *a, startaddr *s, bool allowed, const char *kind,
                       uint32_t value) {
  if (!allowed) {
    arg_warning(a, "chosen output format (%s) does not permit \"%s\" records",
                romweld.output.format->name, kind);
    return true;
  }
  if (s->state == 2)
    arg_warning(a, "\"%s\" record respecified; was 0x%X", kind, s->current.value);
  s->state = 2;
  s->current.definedBy = a;
  s->current.value = value;
  return true;
}

} // namespace

// ---- -O -------------------------------------------------------------------------

int parseOUTFILE(romweld_arg *a) {
  const char *rest = arg_claimWord(a, "-o", ARGT_OUTFILE);
  if (!rest)
    return MATCH_NONE;
  outfile_spec &spec = arg_newSpec<outfile_spec>(a);
  if (*rest)
    spec.path = rest;
  a->op = doOUTFILE;
  return MATCH_OK;
}

bool doOUTFILE(romweld_arg *a) {
  if (romweld.output.path)
    arg_warning(a, "output file (%s) respecified", romweld.output.path->c_str());
  // The last -O wins: a named file undoes an earlier bare "-O".
  const outfile_spec &spec = arg_spec<outfile_spec>(a);
  romweld.output.path = spec.path;
  romweld.output.suppress = !spec.path;
  return true;
}

// ---- -FORMAT -------------------------------------------------------------------------

int parseFORMAT(romweld_arg *a) {
  const char *rest = arg_claimWord(a, "-format", ARGT_FORMAT);
  if (!rest)
    return MATCH_NONE;
  if (!(rest = afterEquals(a, rest)))
    return MATCH_ERROR;
  // Intended: each name is compared over its own length, so "INHX32X" picks
  // INHX32 and then fails on the trailing "X".
  const outformat *f = nullptr;
  for (const outformat &row : outformat_table) {
    if (strncasecmp(rest, row.name, std::strlen(row.name)) == 0) {
      f = &row;
      break;
    }
  }
  if (!f || f->id == 0) {
    arg_error(a, "unknown/unsupported output format specified");
    return MATCH_ERROR;
  }
  rest += std::strlen(f->name);
  format_spec &spec = arg_newSpec<format_spec>(a);
  spec.format = f;
  // A raw binary has no records, so it takes no record length.
  if (*rest == ',' && f->codec != OUT_BIN) {
    numreq r{a, "maximum data record length", rest + 1, 4, RADIX_DEFAULT_10};
    grammar_number(&r);
    if (r.error)
      return MATCH_ERROR;
    spec.hasLength = true;
    spec.length = static_cast<uint32_t>(r.value);
    if (r.value == 0 || r.value > 128) {
      arg_warning(a, "invalid maximum data record length; changing to %u bytes", 16u);
      spec.length = 16;
    }
    rest = r.end;
  }
  if (*rest != '\0') {
    arg_error(a, "garbage (\"%s\") at the end of option", rest);
    return MATCH_ERROR;
  }
  a->op = doFORMAT;
  return MATCH_OK;
}

bool doFORMAT(romweld_arg *a) {
  const format_spec &spec = arg_spec<format_spec>(a);
  const outformat *f = spec.format;
  if (romweld.output.format && romweld.output.format != f)
    arg_warning(a, "respecified output type; was %s", romweld.output.format->name);
  romweld.output.format = f;
  if (spec.hasLength) {
    if (romweld.output.maxLength != 0 && romweld.output.maxLength != spec.length)
      arg_warning(a, "respecified maximum data record length; was %u bytes",
                  romweld.output.maxLength);
    romweld.output.maxLength = spec.length;
  }
  // Once a variant has refused a start address type, no later choice of
  // variant lets input files bring it back.
  if (!f->allowSLA)
    romweld.sla.state = 0;
  if (!f->allowSSA)
    romweld.ssa.state = 0;
  return true;
}

// ---- -ADDRESSING -----------------------------------------------------------------------

int parseADDRESSING(romweld_arg *a) {
  const char *rest = arg_claimWord(a, "-addressing", ARGT_ADDRESSING);
  if (!rest)
    return MATCH_NONE;
  uint64_t v = 0;
  if (!equalsNumber(a, rest, "\"addressing\"", 1, RADIX_10, &v))
    return MATCH_ERROR;
  if (v < 1 || v > MAX_ARG_BYTES) {
    arg_error(a, "addressing must be > 0 and <= %zd", static_cast<ssize_t>(MAX_ARG_BYTES));
    return MATCH_ERROR;
  }
  arg_newSpec<addressing_spec>(a).unit = static_cast<uint32_t>(v);
  a->op = doADDRESSING;
  return MATCH_OK;
}

bool doADDRESSING(romweld_arg *a) {
  const uint32_t unit = arg_spec<addressing_spec>(a).unit;
  if (romweld.addressing != 0 && romweld.addressing != unit)
    arg_warning(a, "addressing redefined (was %u)", romweld.addressing);
  romweld.addressing = unit;
  return true;
}

// ---- -BREAK ----------------------------------------------------------------------------

namespace {
constexpr uint64_t BREAK_TOP = 0xFFFFFFFFFFFFFFFEull;
}

int parseBREAK(romweld_arg *a) {
  const char *rest = arg_claimWord(a, "-break", ARGT_BREAK);
  if (!rest)
    return MATCH_NONE;
  if (!(rest = afterEquals(a, rest)))
    return MATCH_ERROR;
  if (*rest == '\0') {
    arg_error(a, "break must have a comma-separated list of hexadecimal addresses");
    return MATCH_ERROR;
  }
  break_spec &spec = arg_newSpec<break_spec>(a);
  for (;;) {
    numreq r{a, "\"address break(s)\"", rest, 8, RADIX_16};
    grammar_number(&r);
    if (r.error)
      return MATCH_ERROR;
    if (r.value > BREAK_TOP) {
      arg_error(a, "address breaks must be <= 0x%" PRIX64, BREAK_TOP);
      return MATCH_ERROR;
    }
    spec.addrs.insert(r.value);
    rest = r.end;
    if (*rest == '\0')
      break;
    if (*rest != ',') {
      arg_error(a, "break must have a comma-separated list of hexadecimal addresses");
      return MATCH_ERROR;
    }
    ++rest;
  }
  a->op = doBREAK;
  return MATCH_OK;
}

bool doBREAK(romweld_arg *a) {
  hex_clearErrors();
  for (uint64_t b : arg_spec<break_spec>(a).addrs) {
    uint64_t addr = 0;
    if (!units_toBytes(a, "address break", UNITS_START, b, &addr))
      return false;
    if (!ihex_addBreak(romweld.hex, addr)) {
      arg_error(a, "address breaks must be <= 0x%" PRIX64, BREAK_TOP);
      return false;
    }
  }
  return true;
}

// ---- --SSA and --SLA -------------------------------------------------------------------

int parseSSA(romweld_arg *a) {
  return parseStartAddress(a, "--ssa", "\"start segment address\"", ARGT_SSA, doSSA);
}

bool doSSA(romweld_arg *a) {
  return applyStartAddress(a, &romweld.ssa, romweld.output.format->allowSSA,
                           "Start Segment Address", arg_spec<startaddr_spec>(a).value);
}

int parseSLA(romweld_arg *a) {
  return parseStartAddress(a, "--sla", "\"start linear address\"", ARGT_SLA, doSLA);
}

bool doSLA(romweld_arg *a) {
  return applyStartAddress(a, &romweld.sla, romweld.output.format->allowSLA,
                           "Start Linear Address", arg_spec<startaddr_spec>(a).value);
}

// ---- -SIZE -------------------------------------------------------------------------------

int parseSIZE(romweld_arg *a) {
  const char *rest = arg_claimWord(a, "-size", ARGT_SIZE);
  if (!rest)
    return MATCH_NONE;
  if (*rest) {
    arg_error(a, "malformed option");
    return MATCH_ERROR;
  }
  romweld.sizeRequested = true;
  a->op = doSIZE;
  return MATCH_OK;
}

bool doSIZE(romweld_arg *) {
  const uint64_t n = romweld.hex ? hex_getByteCount(ihex_getImage(romweld.hex)) : 0;
  std::printf("Total data: %" PRIu64 " (%" PRIX64 "h) bytes\n", n, n);
  return usage_flushStdout();
}

// ---- -LOGFILE ----------------------------------------------------------------------------

int parseLOGFILE(romweld_arg *a) {
  const char *rest = arg_claimWord(a, "-logfile", ARGT_LOGFILE);
  if (!rest)
    return MATCH_NONE;
  if (*rest != '=' && *rest != '\0') {
    arg_error(a, "malformed option");
    return MATCH_ERROR;
  }
  if (*rest == '\0' || rest[1] == '\0') {
    arg_error(a, "no log-file specified");
    return MATCH_ERROR;
  }
  if (romweld.log.path)
    arg_warning(a, "respecified log-file; was \"%s\"", romweld.log.path->c_str());
  // Set while parsing: the log opens before any operation runs.
  romweld.log.path = rest + 1;
  return MATCH_OK;
}
