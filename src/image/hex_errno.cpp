// Error list of the image library: one process-wide list of records in the
// order they were recorded, plus the current error (the last code recorded
// since the last clear).
#include "image/hex_errno.h"

#include "common/check.h"

#include <cstddef>
#include <vector>

namespace {

// Indexed by code; the static_assert keeps it in step with the enum.
constexpr const char *kNames[] = {
    "EOK",          // 0
    "ENODATA",      // 1
    "ECLASH",       // 2
    "ENULL",        // 3
    "EMEMORY",      // 4
    "EARG",         // 5
    "EPRESERVED",   // 6
    "ECLOBBERED",   // 7
    "EIO",          // 8
    "ECHECKSUM",    // 9
    "EHEX",         // 10
    "ENOEOF",       // 11
    "EIPCONFLICT",  // 12
    "ECSCONFLICT",  // 13
    "EEIPCONFLICT", // 14
    "EUNKNOWNREC",  // 15
    "EBADCHAR",     // 16
    "EREADHEX",     // 17
    "EWIDEVALUE",   // 18
    "ENOVALUE",     // 19
    "EBADWIDTH",    // 20
    "EBADADDR",     // 21
    "EINC",         // 22
    "EBADMODE",     // 23
    "ENOSTART",     // 24
    "ENOCODE",      // 25
    "EBADALIGN",    // 26
    "ENOMASK",      // 27
    "EBELOWZERO",   // 28
    "EOVERLAPS",    // 29
    "EUNKNOWNTYPE", // 30
    "EBADPOLY",     // 31
    "EBADSKIP",     // 32
    "EBADCODEBASE", // 33
    "EUNDEFADDR",   // 34
    "EBADINDEX",    // 35
    "EBUDGET",      // 36
    "ECOUNT",       // 37
    "EBADFILE",     // 38
};
static_assert(sizeof kNames / sizeof kNames[0] == HEX_ERRCODE_COUNT,
              "one name per error code");

struct error_list {
  std::vector<hex_error> records;
  size_t head = 0; // records before head were popped
  uint64_t dropped = 0;
  uint32_t current = EOK;
};

error_list &list() {
  static error_list l;
  return l;
}

} // namespace

const char *hex_strerror(uint32_t code) {
  return code < HEX_ERRCODE_COUNT ? kNames[code] : "Unknown";
}

namespace {

// The arguments each code carries; a typed entry accepts only its own.
enum shape { NONE, ADDR, CLOBBER, NUM, UNKNOWNREC, UNDEFADDR, BUDGET, COUNT };

shape shapeOf(uint32_t code) {
  switch (code) {
  case ECLASH:
  case EPRESERVED:
    return ADDR;
  case ECLOBBERED:
    return CLOBBER;
  case ECHECKSUM:
  case EHEX:
  case EIPCONFLICT:
  case ECSCONFLICT:
  case EBADCHAR:
  case EREADHEX:
  case EBADFILE:
    return NUM;
  case EUNKNOWNREC:
    return UNKNOWNREC;
  case EUNDEFADDR:
    return UNDEFADDR;
  case EBUDGET:
    return BUDGET;
  case ECOUNT:
    return COUNT;
  default:
    return NONE;
  }
}

void append(const hex_error &e) {
  error_list &l = list();
  l.current = e.code;
  if (l.records.size() - l.head >= HEX_ERRORS_KEPT) {
    ++l.dropped;
    return;
  }
  l.records.push_back(e);
}

hex_error record(uint32_t code, shape s) {
  ROMWELD_ASSERT(shapeOf(code) == s);
  hex_error e{};
  e.code = code;
  e.name = hex_strerror(code);
  return e;
}

} // namespace

void hex_setError(uint32_t code) { append(record(code, NONE)); }

void hex_setAddrError(uint32_t code, uint64_t addr) {
  hex_error e = record(code, ADDR);
  e.addr = addr;
  append(e);
}

void hex_setClobbered(uint64_t addr, const void *note) {
  hex_error e = record(ECLOBBERED, CLOBBER);
  e.addr = addr;
  e.note = note;
  append(e);
}

void hex_setNumError(uint32_t code, uint32_t num) {
  hex_error e = record(code, NUM);
  e.num = num;
  append(e);
}

void hex_setUnknownRecord(uint32_t line, uint32_t type) {
  hex_error e = record(EUNKNOWNREC, UNKNOWNREC);
  e.num = line;
  e.num2 = type;
  append(e);
}

void hex_setUndefAddr(uint64_t addr, bool flag, char ch) {
  hex_error e = record(EUNDEFADDR, UNDEFADDR);
  e.addr = addr;
  e.flag = flag;
  e.ch = flag ? '\0' : ch;
  append(e);
}

void hex_setBudgetError(uint64_t rows, uint32_t copies) {
  hex_error e = record(EBUDGET, BUDGET);
  e.addr = rows;
  e.num = copies;
  append(e);
}

void hex_setCountError(uint32_t line, uint32_t stated, uint64_t counted) {
  hex_error e = record(ECOUNT, COUNT);
  e.num = line;
  e.num2 = stated;
  e.addr = counted;
  append(e);
}

uint64_t hex_errorsDropped() { return list().dropped; }

uint32_t hex_errno() { return list().current; }

void hex_clearErrors() {
  error_list &l = list();
  l.records.clear();
  l.head = 0;
  l.dropped = 0;
  l.current = EOK;
}

uint32_t hex_errorCount() {
  const error_list &l = list();
  return static_cast<uint32_t>(l.records.size() - l.head);
}

hex_error hex_errorAt(uint32_t index) {
  const error_list &l = list();
  if (index >= l.records.size() - l.head) {
    hex_error e{};
    e.code = EBADINDEX;
    e.name = kNames[EBADINDEX];
    return e;
  }
  return l.records[l.head + index];
}

hex_error hex_popError() {
  error_list &l = list();
  if (l.head == l.records.size())
    return hex_error{};
  hex_error e = l.records[l.head++];
  if (l.head == l.records.size()) {
    l.records.clear();
    l.head = 0;
  }
  return e;
}
