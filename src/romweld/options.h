// Parsers and operations of the option families. Each parser looks at a
// record whose `str` is set and answers MATCH_NONE, MATCH_OK (record filled,
// `id` and `op` set) or MATCH_ERROR (message already issued). Each operation
// is called by process() at its kind's place and returns false to stop the run.
#pragma once

#include <cstdint>
#include <vector>

#include "image/record.h"

struct romweld_arg;

// Input files (opt_infile.cpp)
int parseINFILE(romweld_arg *a);
bool doINFILE(romweld_arg *a);

// Output control (opt_output.cpp)
int parseSLA(romweld_arg *a);
bool doSLA(romweld_arg *a);
int parseSSA(romweld_arg *a);
bool doSSA(romweld_arg *a);
int parseADDRESSING(romweld_arg *a);
bool doADDRESSING(romweld_arg *a);
int parseBREAK(romweld_arg *a);
bool doBREAK(romweld_arg *a);
int parseFORMAT(romweld_arg *a);
bool doFORMAT(romweld_arg *a);
int parseOUTFILE(romweld_arg *a);
bool doOUTFILE(romweld_arg *a);
int parseSIZE(romweld_arg *a);
bool doSIZE(romweld_arg *a);
int parseLOGFILE(romweld_arg *a); // no operation: the log opens at step 2

// -FILL (opt_fill.cpp)
int parseFILL(romweld_arg *a);
bool doFILL(romweld_arg *a);

// -MASK (opt_mask.cpp)
int parseMASK(romweld_arg *a);
bool doMASK(romweld_arg *a);

// -CK (opt_checksum.cpp)
int parseCHECKSUM(romweld_arg *a);
bool doCHECKSUM(romweld_arg *a);

// -SERIAL (opt_serial.cpp)
int parseSERIAL(romweld_arg *a);
bool doSERIAL(romweld_arg *a);

// -STRING and -STRPACK (opt_string.cpp)
int parseSTRING(romweld_arg *a); // both string kinds
bool doSTRING(romweld_arg *a);

// -FIND with ,REPLACE and ,DELETE (opt_find.cpp)
int parseFIND(romweld_arg *a);
bool doFIND(romweld_arg *a);
int parseREPLACE(romweld_arg *a);
bool doREPLACE(romweld_arg *a);
int parseDELETE(romweld_arg *a);
bool doDELETE(romweld_arg *a);

// -HELP (opt_help.cpp)
int parseHELP(romweld_arg *a);
bool doHELP(romweld_arg *a);

// ---- what the log asks of the families ---------------------------------

// Where the trailing-code cells of a record's stored bytes lie in the
// image: from `base` on, by `layout`; a group of 0 when there are none.
struct trail_cells {
  uint64_t base = 0;
  trail_layout layout;
};
trail_cells trailCellsCHECKSUM(const romweld_arg *a);
trail_cells trailCellsSTRING(const romweld_arg *a);

// A computed checksum's result as its report prints it: a number most
// significant byte first, a digest in its standard order.
std::vector<uint8_t> valueCHECKSUM(const romweld_arg *a);
