// Test support of the image library: hooks that tests use to reach states
// a run reaches only when the machine runs short. Never included by the
// tool itself.
#pragma once

#include <cstdint>

// After n more successful row or note-table allocations, every further one
// fails as if the heap were exhausted; a negative n ends that.
void hex_failAllocationsAfter(long n);

// The most rows one fill may add (hexdata_fill.h), lowered so that a test
// reaches the budget with a few rows; HEX_FILL_MAX_NEW_ROWS restores it.
void hex_setFillRowBudget(uint64_t rows);
