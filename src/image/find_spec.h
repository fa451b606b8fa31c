// The search record and match list of -FIND, ,REPLACE and ,DELETE: what
// to look for (a code under a bit mask), where (an inclusive address range,
// either end optional), at which alignment, and whether a match may
// overlap the one before it. Invariant: mask has code's length, and
// alignment is at least 1. A record in the shape of record.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "image/record.h"

struct findspec {
  std::vector<uint8_t> code; // in the order written, matched at rising addresses
  std::vector<uint8_t> mask; // 1 bits must match; 0xFF bytes when none was given
  addr_range range;
  uint64_t alignment = 1;
  bool overlap = true; // a replace turns it off: its matches never share a byte
};

// ENOCODE for an empty code, EARG when the mask's length differs from the
// code's; a null mask means every bit counts.
[[nodiscard]] bool findspec_setCode(findspec *s, std::span<const uint8_t> code,
                                    const std::vector<uint8_t> *mask);
[[nodiscard]] bool findspec_setAlignment(findspec *s, uint64_t alignment); // EARG for 0
// Both ends as given: a reversed range is taken, and finds nothing.
bool findspec_setRange(findspec *s, uint64_t start, uint64_t end);
bool findspec_setOverlap(findspec *s, bool on);

// The matches of one search in ascending address order, as runs: a run is
// `count` matches from `first` on, `step` apart, so a search that matches
// everywhere costs a few bytes per stretch of the image, not per match. A
// match's bytes are the image's (they differ from the code where the mask
// has 0 bits), read from it when the match is used.
struct findmatches {
  struct run {
    uint64_t first, count, step; // step 0 while the run is one match
    uint64_t last() const { return first + (count - 1) * step; } // the last match's address
  };
  size_t width = 0;
  std::vector<run> runs;

  bool empty() const { return runs.empty(); }
  // Adds a match above the last one: it goes on the last run when it keeps
  // that run's step.
  void add(uint64_t at) {
    if (!runs.empty()) {
      run &r = runs.back();
      if (r.count == 1 || at - r.last() == r.step) {
        r.step = at - r.last();
        ++r.count;
        return;
      }
    }
    runs.push_back({at, 1, 0});
  }
};
