// Row pools of the memory image. A pool keeps at most kPoolKeep returned
// blocks (and as many note arrays); more go back to the heap. Every
// allocation goes through operator new, whose failure ends the run with
// the out-of-memory message (alert.h).
#include <new>
#include <cstring>
#include <vector>

#include "image/hexdata_internal.h"

namespace hexmem {

constexpr size_t kPoolKeep = 1024;

struct pools {
  std::vector<hex_block *> blocks;
  std::vector<const void **> notes;
};

// Never destroyed: the pools outlive every image, whatever the exit order.
pools &pool() {
  static pools *p = new pools;
  return *p;
}

hex_block *takeBlock(uint64_t row) {
  pools &p = pool();
  hex_block *b;
  if (!p.blocks.empty()) {
    b = p.blocks.back();
    p.blocks.pop_back();
  } else {
    b = static_cast<hex_block *>(::operator new(sizeof(hex_block)));
  }
  std::memset(static_cast<void *>(b), 0, sizeof *b);
  b->row = row;
  return b;
}

const void **takeNotes() {
  pools &p = pool();
  if (!p.notes.empty()) {
    const void **n = p.notes.back();
    p.notes.pop_back();
    return n;
  }
  return static_cast<const void **>(::operator new(256 * sizeof(void *)));
}

void giveNotes(const void **n) {
  pools &p = pool();
  if (p.notes.size() < kPoolKeep)
    p.notes.push_back(n);
  else
    ::operator delete(n);
}

void giveBlock(hex_block *b) {
  if (b->notes)
    giveNotes(b->notes);
  pools &p = pool();
  if (p.blocks.size() < kPoolKeep)
    p.blocks.push_back(b);
  else
    ::operator delete(b);
}

void *newNode(size_t size) { return std::memset(::operator new(size), 0, size); }

void freeNode(void *n) { ::operator delete(n); }

} // namespace hexmem

