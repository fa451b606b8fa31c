// Row pools of the memory image. A pool keeps at most kPoolKeep returned
// blocks (and as many note tables of each size); more go back to the heap.
#include <algorithm>
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
  std::vector<hex_notes *> notes[4]; // by size: 1, 2, 4 and 64 bits per column
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

namespace {
std::vector<hex_notes *> &notesPool(unsigned bits) {
  return pool().notes[std::min(unsigned(__builtin_ctz(bits)), 3u)];
}
} // namespace

// A note table of `bits` without owners, its index uninitialised; or null.
hex_notes *takeNotes(unsigned bits) {
  if (allocationFails())
    return nullptr;
  std::vector<hex_notes *> &kept = notesPool(bits);
  hex_notes *n;
  if (!kept.empty()) {
    n = kept.back();
    kept.pop_back();
  } else if (!(n = static_cast<hex_notes *>(std::malloc(notesSize(bits))))) {
    return nullptr;
  }
  n->bits = uint8_t(bits);
  n->owners = 0;
  return n;
}

void giveNotes(hex_notes *n) {
  std::vector<hex_notes *> &kept = notesPool(n->bits);
  if (kept.size() < kPoolKeep)
    kept.push_back(n);
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
