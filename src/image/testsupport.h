// Test support of the image library: hooks that tests use to reach states
// a run reaches only when the machine runs short. Never included by the
// tool itself.
#pragma once

// After n more successful row or note-array allocations, every further one
// fails as if the heap were exhausted; a negative n ends that.
void hex_failAllocationsAfter(long n);
