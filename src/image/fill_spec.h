// Fill record: what one -FILL writes and where. A plain record with
// accessors; each refusal is recorded in the error list (hex_errno.h) and
// leaves the record unchanged. No image, no messages.
//
// The pattern is the values in order, each `width` bytes little-endian. An
// increment is only ever held with a single value, so a counting pattern is
// at most 8 bytes long. Addresses are in whatever unit the holder keeps
// them; the engine (hexdata_fill.h) takes them as byte addresses.
#pragma once

#include <cstdint>
#include <vector>

// Which addresses of the range a fill writes.
enum fill_mode : uint32_t {
  FILL_UNUSED = 0,    // addresses without data (plain store)
  FILL_USED = 1,      // addresses with data, overwritten (forced store)
  FILL_ALL = 2,       // every address (forced store)
  FILL_DATA_ROWS = 3, // addresses without data, inside rows of rowLength that hold data
};

struct fillspec {
  std::vector<uint64_t> values;
  uint32_t width = 2;      // bytes per value, 1..8
  uint64_t mask = 0xFFFF;  // 2^(8*width) - 1
  int32_t increment = 0;   // added to the pattern after each full period
  uint32_t mode = FILL_UNUSED;
  uint64_t start = 0;
  bool hasStart = false;
  uint64_t end = 0; // inclusive
  bool hasEnd = false;
  bool preserveData = false; // mark every written byte preserved
  bool hasOwner = false;
  const void *owner = nullptr; // note of every written byte
  uint32_t rowLength = 16;     // FILL_DATA_ROWS: bytes per row, never 0
};

// Setters return 1, or 0 with the code recorded; a null record gives ENULL.
[[nodiscard]] int fillspec_setWidth(fillspec *f, uint32_t width);   // EBADWIDTH outside 1..8
[[nodiscard]] int fillspec_addValue(fillspec *f, uint64_t value);   // EWIDEVALUE, EINC
[[nodiscard]] int fillspec_setIncrement(fillspec *f, int32_t inc);  // EINC with several values
[[nodiscard]] int fillspec_setMode(fillspec *f, uint32_t mode);     // EBADMODE above 3
[[nodiscard]] int fillspec_setStart(fillspec *f, uint64_t start);   // EBADADDR above the end
[[nodiscard]] int fillspec_setEnd(fillspec *f, uint64_t end);       // EBADADDR below the start
[[nodiscard]] int fillspec_setRowLength(fillspec *f, uint32_t len); // EBADWIDTH when 0
int fillspec_setPreserveData(fillspec *f, bool on);
int fillspec_setOwner(fillspec *f, const void *owner);

// Getters return 0 (or false) for a null record, with ENULL recorded.
uint32_t fillspec_getWidth(const fillspec *f);
uint64_t fillspec_getMask(const fillspec *f);
uint32_t fillspec_countValues(const fillspec *f);
uint64_t fillspec_getValue(const fillspec *f, uint32_t i); // ENOVALUE past the count
int32_t fillspec_getIncrement(const fillspec *f);
int fillspec_getMode(const fillspec *f); // -1 for a null record
bool fillspec_hasStart(const fillspec *f);
uint64_t fillspec_getStart(const fillspec *f); // 0 when not set
bool fillspec_hasEnd(const fillspec *f);
uint64_t fillspec_getEnd(const fillspec *f); // 0 when not set
bool fillspec_willPreserveData(const fillspec *f);
bool fillspec_hasOwner(const fillspec *f);
const void *fillspec_getOwner(const fillspec *f);
uint32_t fillspec_getRowLength(const fillspec *f);
