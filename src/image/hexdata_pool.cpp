// Row pools of the memory image. A pool keeps at most kPoolKeep returned
// blocks (and as many note arrays); more go back to the heap.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/alert.h"
#include "image/hexdata_internal.h"
#include "image/testsupport.h"

namespace hexmem {

constexpr size_t kPoolKeep = 1024;

struct pools {
  std::vector<hex_block *> blocks;
  std::vector<const void **> notes;
  long failAfter = -1; // tests: allocations left before they fail
};

// Never destroyed: the pools outlive every image, whatever the exit order.
pools &pool() {
  static pools *p = new pools;
  return *p;
}

bool allocationFails() {
  pools &p = pool();
  if (p.failAfter < 0)
    return false;
  if (p.failAfter == 0)
    return true;
  --p.failAfter;
  return false;
}

// A zeroed block for a row, or null when the heap is exhausted.
hex_block *takeBlock(uint64_t row) {
  if (allocationFails())
    return nullptr;
  pools &p = pool();
  hex_block *b;
  if (!p.blocks.empty()) {
    b = p.blocks.back();
    p.blocks.pop_back();
    std::memset(static_cast<void *>(b), 0, sizeof *b);
  } else if (!(b = static_cast<hex_block *>(std::calloc(1, sizeof(hex_block))))) {
    return nullptr;
  }
  b->row = row;
  return b;
}

// An uninitialised 256-entry note array, or null.
const void **takeNotes() {
  if (allocationFails())
    return nullptr;
  pools &p = pool();
  if (!p.notes.empty()) {
    const void **n = p.notes.back();
    p.notes.pop_back();
    return n;
  }
  return static_cast<const void **>(std::malloc(256 * sizeof(void *)));
}

void giveNotes(const void **n) {
  pools &p = pool();
  if (p.notes.size() < kPoolKeep)
    p.notes.push_back(n);
  else
    std::free(n);
}

void giveBlock(hex_block *b) {
  if (b->notes)
    giveNotes(b->notes);
  pools &p = pool();
  if (p.blocks.size() < kPoolKeep)
    p.blocks.push_back(b);
  else
    std::free(b);
}

void *newNode(size_t size) {
  void *n = std::calloc(1, size);
  if (!n)
    alert_outOfMemory();
  return n;
}

} // namespace hexmem

void hex_failAllocationsAfter(long n) { hexmem::pool().failAfter = n; }
