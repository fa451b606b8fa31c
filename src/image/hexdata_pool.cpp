// Row pools of the memory image. Row blocks are carved from slabs that
// double from 64 KiB up to 2 MiB (those asked to be backed by huge pages):
// a 16 MiB image is 65,536 blocks, and one heap allocation and one page
// fault per block would cost more than reading the file. A returned block
// waits for the next row; slabs live as long as the process. A pool keeps
// at most kPoolKeep returned note tables of each size; more go back to the
// heap. Every allocation goes through operator new, whose failure ends the
// run with the out-of-memory message (alert.h).
#include <algorithm>
#include <cstring>
#include <new>
#include <sys/mman.h>
#include <vector>

#include "image/hexdata_internal.h"

namespace hexmem {

constexpr size_t kPoolKeep = 1024;

constexpr size_t kFirstSlab = size_t(64) << 10;
constexpr size_t kHugeSlab = size_t(2) << 20;

struct pools {
  std::vector<hex_block *> blocks;   // returned, ready for another row
  std::vector<void *> slabs;         // kept to the end (and for leak checkers)
  char *next = nullptr;              // the unused rest of the newest slab
  size_t left = 0;
  size_t slabSize = kFirstSlab;
  std::vector<hex_notes *> notes[4]; // by size: 1, 2, 4 and 64 bits per column
};

// Never destroyed: the pools outlive every image, whatever the exit order.
pools &pool() {
  static pools *p = new pools;
  return *p;
}

namespace {
hex_block *carve(pools &p) {
  if (p.left < sizeof(hex_block)) {
    const size_t size = p.slabSize;
    // Reserved first, so that a failure to take the slab leaves no slab
    // unrecorded.
    p.slabs.reserve(p.slabs.size() + 1);
    void *slab = ::operator new(size, std::align_val_t{size == kHugeSlab ? kHugeSlab : 64});
    if (size == kHugeSlab)
      madvise(slab, size, MADV_HUGEPAGE); // a hint: without it, plain pages
    p.slabs.push_back(slab);
    p.next = static_cast<char *>(slab);
    p.left = size;
    p.slabSize = std::min(size * 2, kHugeSlab);
  }
  hex_block *b = reinterpret_cast<hex_block *>(p.next);
  p.next += sizeof(hex_block);
  p.left -= sizeof(hex_block);
  return b;
}
} // namespace

hex_block *takeBlock(uint64_t row) {
  pools &p = pool();
  hex_block *b;
  if (!p.blocks.empty()) {
    b = p.blocks.back();
    p.blocks.pop_back();
  } else {
    b = carve(p);
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
  pool().blocks.push_back(b);
}

void *newNode(size_t size) { return std::memset(::operator new(size), 0, size); }

void freeNode(void *n) { ::operator delete(n); }

} // namespace hexmem

