// Run-wide settings `romweld.*`: output file, format and record length,
// addressing unit, start addresses, log file, -SIZE request and the run's
// hex object. Written by parsers and operations, read by the pipeline, the
// writer and the log. romweld_reset() returns
// every setting to its initial value.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

struct atomic_file;
struct ihex;
struct romweld_arg;

// Output-format table: looked up by name; the "UNKNOWN" row ends it.
enum outcodec : unsigned { OUT_IHEX, OUT_SREC, OUT_BIN };
struct outformat {
  unsigned id;
  const char *name;
  outcodec codec;
  unsigned writer; // variant code given to the codec's writer
  bool allowSLA;
  bool allowSSA;
  unsigned addrBytes;
};
// INHX8M, INHX16, INHX32, INHX032, SREC, S19, S28, S37, BIN, UNKNOWN
extern const outformat outformat_table[10];
const outformat *outformat_default();      // INHX32

// Start address setting: state 0 discarded, 1 may come from input files,
// 2 set by --SLA / --SSA.
struct startaddr {
  int state = 1;
  struct {
    const romweld_arg *definedBy = nullptr;
    uint32_t value = 0;
  } current;
};

struct romweld_settings {
  struct {
    std::optional<std::string> path;
    bool suppress = false;
    const outformat *format = nullptr;
    uint32_t maxLength = 0;
    atomic_file *file = nullptr; // written, not yet in place
  } output;
  uint32_t addressing = 0;
  startaddr sla;
  startaddr ssa;
  struct {
    std::optional<std::string> path;
    FILE *fp = nullptr;         // the stream of `file`, while the log is open
    atomic_file *file = nullptr; // written, not yet in place
    bool findSection = false;
    // The log's extents: the ranges that input files, fills and
    // replacements report; what the memory usage and the map cover.
    uint64_t lo = ~uint64_t(0);
    uint64_t hi = 0;
    bool noExtent = true;
  } log;
  bool sizeRequested = false;
  ihex *hex = nullptr; // the run's hex object, owned
};

extern romweld_settings romweld;
void romweld_reset();
void romweld_widenExtents(uint64_t lo, uint64_t hi); // the log's extents
