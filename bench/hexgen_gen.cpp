// Writes the benchmark inputs, the same for the same seed:
//   mcu.hex        a 256 KiB microcontroller image, 16-byte records
//   big.hex        a 16 MiB image of 32-byte records with gaps (about 38 MB)
//   sparse.hex     20,000 small records scattered over the 32-bit space
//   overlap_a.hex  0 .. 10 MiB        } overlapping by 4 MiB
//   overlap_b.hex  6 MiB .. 16 MiB    } of equal data
//   conflict_b.hex overlap_b's range with every byte different
// Usage: hexgen_gen OUTDIR [SEED]
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

uint64_t g_seed = 1;
uint8_t g_flip = 0; // XORed into every byte: a file that conflicts with the others

// Data depends only on the address (and the seed), so overlapping images
// agree wherever they meet.
uint8_t byteAt(uint64_t addr) {
  uint64_t z = addr * 0x9E3779B97F4A7C15ull + g_seed;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return static_cast<uint8_t>(z ^ (z >> 31) ^ g_flip);
}

struct rng {
  uint64_t s;
  uint64_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return s;
  }
};

class hexOut {
public:
  explicit hexOut(const std::string &path) : f_(std::fopen(path.c_str(), "w")) {
    if (!f_) {
      std::perror(path.c_str());
      std::exit(1);
    }
    std::setvbuf(f_, nullptr, _IOFBF, 1 << 20);
  }
  ~hexOut() {
    record(1, 0, nullptr, 0);
    if (std::fclose(f_) != 0) {
      std::perror("write");
      std::exit(1);
    }
  }
  // One data record; an extended linear address record first when the
  // upper 16 bits change. Records never cross a 64 KiB boundary.
  void data(uint64_t addr, unsigned n) {
    uint8_t b[255];
    while (n) {
      const unsigned k = static_cast<unsigned>(std::min<uint64_t>(n, 0x10000 - (addr & 0xFFFF)));
      if ((addr >> 16) != upper_) {
        upper_ = addr >> 16;
        const uint8_t u[2] = {static_cast<uint8_t>(upper_ >> 8), static_cast<uint8_t>(upper_)};
        record(4, 0, u, 2);
      }
      for (unsigned i = 0; i < k; ++i)
        b[i] = byteAt(addr + i);
      record(0, static_cast<unsigned>(addr & 0xFFFF), b, k);
      addr += k;
      n -= k;
    }
  }

private:
  void record(unsigned type, unsigned addr, const uint8_t *d, unsigned n) {
    unsigned sum = n + (addr >> 8) + (addr & 0xFF) + type;
    std::fprintf(f_, ":%02X%04X%02X", n, addr, type);
    for (unsigned i = 0; i < n; ++i) {
      std::fprintf(f_, "%02X", d[i]);
      sum += d[i];
    }
    std::fprintf(f_, "%02X\n", (0x100 - (sum & 0xFF)) & 0xFF);
  }
  FILE *f_;
  uint64_t upper_ = 0;
};

void dense(const std::string &path, uint64_t start, uint64_t size, unsigned recLen,
           unsigned gapEvery) {
  hexOut out(path);
  unsigned i = 0;
  for (uint64_t a = start; a < start + size; a += recLen, ++i)
    if (!gapEvery || i % gapEvery != gapEvery - 1)
      out.data(a, static_cast<unsigned>(std::min<uint64_t>(recLen, start + size - a)));
}

} // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUTDIR [SEED]\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  g_seed = argc > 2 ? std::strtoull(argv[2], nullptr, 0) : 1;
  const uint64_t MiB = 1 << 20;

  dense(dir + "/mcu.hex", 0x08000000, 256 * 1024, 16, 0);
  dense(dir + "/big.hex", 0, 16 * MiB, 32, 32); // every 32nd record left out
  {
    rng r{g_seed * 2654435761u + 7};
    std::vector<std::pair<uint64_t, unsigned>> recs;
    for (int i = 0; i < 20000; ++i)
      recs.push_back({r.next() & 0xFFFFFFF0ull, static_cast<unsigned>(r.next() % 16 + 1)});
    std::sort(recs.begin(), recs.end());
    hexOut out(dir + "/sparse.hex");
    uint64_t end = 0;
    for (auto &[a, n] : recs) {
      if (a < end) // keep records apart so the image is what was written
        continue;
      out.data(a, n);
      end = a + n;
    }
  }
  dense(dir + "/overlap_a.hex", 0, 10 * MiB, 32, 0);
  dense(dir + "/overlap_b.hex", 6 * MiB, 10 * MiB, 32, 0);
  g_flip = 0x5A;
  dense(dir + "/conflict_b.hex", 6 * MiB, 10 * MiB, 32, 0);
  return 0;
}
