// Test support of the image library: hooks that tests use to reach states
// a run reaches only on a large image. Never included by the tool itself.
#pragma once

#include <cstdint>

// The rows options may add to an image (hexdata.h), lowered so that a test
// reaches the budget with a few rows; HEX_ROW_BUDGET restores it.
void hex_setRowBudget(uint64_t rows);
