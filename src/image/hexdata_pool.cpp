// Row pools of the memory image. A pool keeps at most kPoolKeep returned
// blocks (and as many note tables of each size); more go back to the heap.
// Every allocation goes through operator new, whose failure ends the run
// with the out-of-memory message (alert.h).
#include <algorithm>
#include <new>
#include <cstring>
#include <vector>

#include "image/hexdata_internal.h"

namespace hexmem {

constexpr size_t kPoolKeep = 1024;

struct pools {
  std::vector<hex_block *> blocks;
  std::vector<hex_notes *> notes[4]; // by size: 1, 2, 4 and 64 bits per column
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

namespace {
std::vector<hex_notes *> &notesPool(unsigned bits) {
  return pool().notes[std::min(unsigned(__builtin_ctz(bits)), 3u)];
}
} // namespace

hex_notes *takeNotes(unsigned bits) {
  std::vector<hex_notes *> &kept = notesPool(bits);
  hex_notes *n;
  if (!kept.empty()) {
    n = kept.back();
    kept.pop_back();
  } else {
    n = static_cast<hex_notes *>(::operator new(notesSize(bits)));
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

