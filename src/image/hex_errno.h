// Error list of the image library. Library functions never print: each
// problem is appended to one process-wide list as a record (code plus the
// arguments that code carries) and the most recent code is the current
// error, read with hex_errno(). The option layer clears the list, calls the
// library, walks the records and issues one numbered message per record.
#pragma once

#include <cerrno>
#include <cstdint>

// Two of our codes share their names with C errno macros; the library's
// codes take precedence wherever this header is included.
#undef ENODATA
#undef EIO

enum hex_errcode : uint32_t {
  EOK = 0,
  ENODATA = 1,
  ECLASH = 2,
  ENULL = 3,
  EMEMORY = 4,
  EARG = 5,
  EPRESERVED = 6,
  ECLOBBERED = 7,
  EIO = 8,
  ECHECKSUM = 9,
  EHEX = 10,
  ENOEOF = 11,
  EIPCONFLICT = 12,
  ECSCONFLICT = 13,
  EEIPCONFLICT = 14,
  EUNKNOWNREC = 15,
  EBADCHAR = 16,
  EREADHEX = 17,
  EWIDEVALUE = 18,
  ENOVALUE = 19,
  EBADWIDTH = 20,
  EBADADDR = 21,
  EINC = 22,
  EBADMODE = 23,
  ENOSTART = 24,
  ENOCODE = 25,
  EBADALIGN = 26,
  ENOMASK = 27,
  EBELOWZERO = 28,
  EOVERLAPS = 29,
  EUNKNOWNTYPE = 30,
  EBADPOLY = 31,
  EBADSKIP = 32,
  EBADCODEBASE = 33,
  EUNDEFADDR = 34,
  EBADINDEX = 35,
  EBUDGET = 36,
  ECOUNT = 37,
  EBADFILE = 38,
  HEX_ERRCODE_COUNT = 39
};
constexpr uint32_t CKSPEC_EOVERLAPS = EOVERLAPS;

// One recorded error. Fields a code does not carry are zero:
//   addr       ECLASH, EPRESERVED, ECLOBBERED, EUNDEFADDR
//   note       ECLOBBERED (owner of the overwritten byte)
//   num        ECHECKSUM, EHEX, EIPCONFLICT, ECSCONFLICT, EBADCHAR, EREADHEX
//              (line or reason), EUNKNOWNREC (line)
//   num2       EUNKNOWNREC (record type)
//   addr, num  EBUDGET (rows asked for, and the copies of a serial)
//   num, num2, addr  ECOUNT (the count record's line, the count it states,
//              the data records before it)
//   num        EBADFILE (a reason of the reader that recorded it)
//   flag, ch   EUNDEFADDR (ch only when flag is 0)
struct hex_error {
  uint32_t code;
  const char *name;
  uint64_t addr;
  const void *note;
  uint32_t num;
  uint32_t num2;
  uint8_t flag;
  char ch;
};

// Appending a record: one entry per record shape, so the compiler checks
// every argument. Each entry accepts only the codes of its shape (a code
// passed to the wrong entry is a programming error and fails a check).
void hex_setError(uint32_t code);                        // codes without arguments
void hex_setAddrError(uint32_t code, uint64_t addr);     // ECLASH, EPRESERVED
void hex_setClobbered(uint64_t addr, const void *note);  // ECLOBBERED
// ECHECKSUM, EHEX, EIPCONFLICT, ECSCONFLICT, EBADCHAR, EREADHEX, EBADFILE:
// a line number or a reason.
void hex_setNumError(uint32_t code, uint32_t num);
void hex_setUnknownRecord(uint32_t line, uint32_t type); // EUNKNOWNREC
void hex_setUndefAddr(uint64_t addr, bool flag, char ch); // EUNDEFADDR; ch only when !flag
void hex_setBudgetError(uint64_t rows, uint32_t copies);  // EBUDGET
void hex_setCountError(uint32_t line, uint32_t stated, uint64_t counted); // ECOUNT

// The list keeps the first HEX_ERRORS_KEPT records of an operation with
// their arguments and only counts the rest, so no operation can exhaust
// memory by refusing byte after byte (a conflicting 16 MiB merge would
// otherwise hold 16 million records to print twenty messages). A record
// past the bound still becomes the current error.
constexpr uint32_t HEX_ERRORS_KEPT = 10000;
uint64_t hex_errorsDropped(); // records counted but not kept since the last clear

uint32_t hex_errno();
void hex_clearErrors();
uint32_t hex_errorCount();
hex_error hex_errorAt(uint32_t index); // EBADINDEX record past the end
hex_error hex_popError();              // all zero when empty
const char *hex_strerror(uint32_t code); // "Unknown" above the last code
