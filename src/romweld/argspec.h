// Kind data of an argument record: what a parser extracted, one record
// per kind, owned by the argument. A record holds exactly one alternative,
// the one of its kind, set by its parser and read by its operation; an
// option file reaches only its own kind through arg_spec<T>. A new option
// family adds its record (fillspec, ckspec, serialspec, stringspec, the
// mask record, findspec) as one more alternative here and nothing else.
// Addresses are kept in address units as typed; operations convert them
// with the run's unit (units.h).
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "image/ck_spec.h"
#include "image/fill_spec.h"
#include "image/find_spec.h"
#include "formats/ihex.h"
#include "image/mask_spec.h"
#include "image/serial_spec.h"
#include "image/string_spec.h"

struct outformat; // settings.h

// Input file: "[+][r<start>-<end>][s<offset>],path".
struct infile_spec {
  std::string path;
  ihex_readspec read; // range and offset in address units; '+' is its clobber
};

// -O: no path suppresses output.
struct outfile_spec {
  std::optional<std::string> path;
};

// -FORMAT=<name>[,<length>]
struct format_spec {
  const outformat *format = nullptr;
  bool hasLength = false;
  uint32_t length = 0;
};

// -ADDRESSING=<unit>
struct addressing_spec {
  uint32_t unit = 0;
};

// -BREAK=<addr>[,<addr>...]: a set, so duplicates merge.
struct break_spec {
  std::set<uint64_t> addrs;
};

// --SLA and --SSA: the record's value.
struct startaddr_spec {
  uint32_t value = 0;
};

// -HELP[=option]: the row in argt_table, or -1 to list every row.
struct help_spec {
  int row = -1;
};

// -FILL
struct fill_arg {
  fillspec spec;
};

// -MASK
struct mask_arg {
  maskspec spec;
};

// -CK. The record keeps its addresses as typed; the operation records what
// the log's checksum report needs once the result is stored.
struct ck_arg {
  ckspec spec;
  bool computed = false;
  uint64_t start = 0, end = 0;  // the range summed, in bytes
  uint64_t dest = 0;            // the first stored byte
  std::vector<uint8_t> result;  // the result bytes as stored, no trailing codes
};

// -SERIAL: start and interval in address units as typed.
struct serial_arg {
  serialspec spec;
};

// -STRING and -STRPACK: start in address units as typed.
struct string_arg {
  stringspec spec;
};

// -FIND, ,REPLACE and ,DELETE: the search as typed, how its matches are
// shown and what they become, and the matches of the last execution.
struct find_arg {
  findspec spec;
  bool warn = false;            // 'w': message 1212 at each match
  std::string title = "OPCode"; // a given title has '#' turned into blanks and is quoted
  bool alignGiven = false;      // only an explicit alignment is in address units
  std::vector<uint8_t> replacement, replacementMask; // ,REPLACE only
  findmatches matches;
};

using argspec = std::variant<std::monostate, infile_spec, outfile_spec, format_spec,
                              addressing_spec, break_spec, startaddr_spec, help_spec,
                              fill_arg, mask_arg, ck_arg, serial_arg, string_arg, find_arg>;
