// What every option record shares: the shape of its accessors, and the store
// policy of the records that place data.
//
// A record is a plain struct whose fields anyone may read. A parser fills it
// only through its setters, which all have one shape: true when the value
// was taken; false, with the reason recorded in the error list (ENULL for a
// null record) and the record unchanged, when it was refused. Setters that
// can refuse a value are [[nodiscard]]. An operation converts its own copy
// of the record to byte addresses (units.h) before handing it to an engine.
#pragma once

#include <cstdint>

#include "image/hex_errno.h"

// True, with ENULL recorded, when there is no record.
template <class R> inline bool record_isNull(const R *r) {
  if (r)
    return false;
  hex_setError(ENULL);
  return true;
}

// Records a refusal: false, for a setter's return.
inline bool record_refuse(uint32_t code) {
  hex_setError(code);
  return false;
}

// How a record that places data stores its bytes: whether it may overwrite
// data already there (the '+' prefix: a forced store), whether it marks what
// it stores preserved, and the note it gives every stored byte (the
// argument that placed it; null gives none).
struct store_policy {
  bool clobber = false;
  bool preserve = false;
  const void *owner = nullptr;
};

bool store_setClobber(store_policy *p, bool on);
bool store_setPreserve(store_policy *p, bool on);
bool store_setOwner(store_policy *p, const void *owner);

// An inclusive address range whose ends may each be missing, in whatever
// unit its holder keeps addresses.
struct addr_range {
  uint64_t start = 0;
  uint64_t end = 0;
  bool hasStart = false;
  bool hasEnd = false;
};

[[nodiscard]] bool range_setStart(addr_range *r, uint64_t start); // EBADADDR above the end
[[nodiscard]] bool range_setEnd(addr_range *r, uint64_t end);     // EBADADDR below the start
// Both ends at once; EBADADDR when start > end.
[[nodiscard]] bool range_set(addr_range *r, uint64_t start, uint64_t end);

// Where a record's trailing code bytes sit among the bytes it stores: from
// the first stored byte, every `group` bytes begin with `lead` bytes of data
// and end with code bytes. A group of 0: the record stores no trailing code.
struct trail_layout {
  uint32_t lead = 0;
  uint32_t group = 0;
};
