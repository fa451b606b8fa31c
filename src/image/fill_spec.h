// Fill record: what one -FILL writes and where. A record in the shape of
// record.h: its setters take a value or record why not. No image, no
// messages.
//
// The pattern is the values in order, each `width` bytes little-endian. An
// increment is only ever held with a single value, so a counting pattern is
// at most 8 bytes long. Addresses are in whatever unit the holder keeps
// them; the engine (hexdata_fill.h) takes them as byte addresses. A fill
// writes unused addresses by the plain rule and used ones by force, as its
// mode says; the policy's clobber is not read.
#pragma once

#include <cstdint>
#include <vector>

#include "image/record.h"

// Which addresses of the range a fill writes.
enum fill_mode : uint32_t {
  FILL_UNUSED = 0,    // addresses without data (plain store)
  FILL_USED = 1,      // addresses with data, overwritten (forced store)
  FILL_ALL = 2,       // every address (forced store)
  FILL_DATA_ROWS = 3, // addresses without data, inside rows of rowLength that hold data
};

struct fillspec {
  std::vector<uint64_t> values;
  uint32_t width = 2;     // bytes per value, 1..8
  uint64_t mask = 0xFFFF; // 2^(8*width) - 1
  int32_t increment = 0;  // added to the pattern after each full period
  uint32_t mode = FILL_UNUSED;
  addr_range range;        // the end is inclusive
  store_policy policy;     // preserve and owner of every written byte
  uint32_t rowLength = 16; // FILL_DATA_ROWS: bytes per row, never 0
};

[[nodiscard]] bool fillspec_setWidth(fillspec *f, uint32_t width);   // EBADWIDTH outside 1..8
[[nodiscard]] bool fillspec_addValue(fillspec *f, uint64_t value);   // EWIDEVALUE, EINC
[[nodiscard]] bool fillspec_setIncrement(fillspec *f, int32_t inc);  // EINC with several values
[[nodiscard]] bool fillspec_setMode(fillspec *f, uint32_t mode);     // EBADMODE above 3
[[nodiscard]] bool fillspec_setRowLength(fillspec *f, uint32_t len); // EBADWIDTH when 0
