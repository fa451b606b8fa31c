// Error list of the image library: one process-wide list of records in the
// order they were recorded, plus the current error (the last code recorded
// since the last clear).
#include "ihex/hex_errno.h"

#include <cstdarg>
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
};
static_assert(sizeof kNames / sizeof kNames[0] == HEX_ERRCODE_COUNT,
              "one name per error code");

// Records at or past this count are dropped without trace.
constexpr uint64_t kMaxRecords = 4294967294u;

struct error_list {
  std::vector<hex_error> records;
  size_t head = 0; // records before head were popped
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

void hex_setError(uint32_t code, ...) {
  error_list &l = list();
  if (l.records.size() - l.head >= kMaxRecords)
    return;
  hex_error e{};
  e.code = code;
  e.name = hex_strerror(code);
  va_list ap;
  va_start(ap, code);
  switch (code) {
  case ECLASH:
  case EPRESERVED:
    e.addr = va_arg(ap, uint64_t);
    break;
  case ECLOBBERED:
    e.addr = va_arg(ap, uint64_t);
    e.note = va_arg(ap, const void *);
    break;
  case ECHECKSUM:
  case EHEX:
  case EIPCONFLICT:
  case ECSCONFLICT:
  case EBADCHAR:
  case EREADHEX:
    e.num = va_arg(ap, unsigned);
    break;
  case EUNKNOWNREC:
    e.num = va_arg(ap, unsigned);
    e.num2 = va_arg(ap, unsigned);
    break;
  case EUNDEFADDR:
    e.addr = va_arg(ap, uint64_t);
    e.flag = va_arg(ap, int) != 0;
    if (!e.flag)
      e.ch = static_cast<char>(va_arg(ap, int));
    break;
  default:
    break;
  }
  va_end(ap);
  l.records.push_back(e);
  l.current = code;
}

uint32_t hex_errno() { return list().current; }

void hex_clearErrors() {
  error_list &l = list();
  l.records.clear();
  l.head = 0;
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
