// Memory image benchmarks: plain and forced stores, merging 16 MiB images,
// hex_nextPresent over a sparse image, walks over the whole 64-bit space. "hexdata_bench --peak" instead builds
// the images of a typical run, each in a child process, and prints the
// child's peak resident memory.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "image/hex_errno.h"
#include "image/hexdata.h"

namespace {

constexpr uint64_t kMiB = uint64_t(1) << 20;
int owners[4];

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  std::mt19937 rng(7);
  for (auto &b : v)
    b = uint8_t(rng());
  return v;
}

// Stores size bytes from base as records of rec bytes, each record owned
// by `note` when given, as the reader does for one input file.
void fill(hexdata *h, uint64_t base, uint64_t size, size_t rec, const void *note, bool force = false) {
  static const std::vector<uint8_t> src = pattern(64 * 1024);
  for (uint64_t off = 0; off < size; off += rec) {
    hex_putBytes(h, base + off, src.data() + (off % src.size()), rec, force);
    if (note)
      hex_setNote(h, base + off, base + off + rec - 1, note);
  }
}

void BM_StoreBytes(benchmark::State &st) {
  const size_t rec = size_t(st.range(0));
  for (auto _ : st) {
    hexdata *h = hex_create();
    fill(h, 0, 16 * kMiB, rec, nullptr);
    benchmark::DoNotOptimize(hex_getByteCount(h));
    st.PauseTiming();
    hex_destroy(h);
    st.ResumeTiming();
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(16 * kMiB));
}
BENCHMARK(BM_StoreBytes)->Arg(16)->Arg(4096)->Unit(benchmark::kMillisecond);

// Forced stores over an image of plain bytes: every byte is overwritten
// and marked, none is a clobber.
void BM_ForceBytesOverPlain(benchmark::State &st) {
  const size_t rec = size_t(st.range(0));
  for (auto _ : st) {
    st.PauseTiming();
    hexdata *h = hex_create();
    fill(h, 0, 16 * kMiB, 4096, nullptr);
    st.ResumeTiming();
    fill(h, 0, 16 * kMiB, rec, nullptr, true);
    st.PauseTiming();
    hex_destroy(h);
    st.ResumeTiming();
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(16 * kMiB));
}
BENCHMARK(BM_ForceBytesOverPlain)->Arg(16)->Arg(4096)->Unit(benchmark::kMillisecond);

// Merging a 16 MiB file image into a 16 MiB main image that lacks its rows
// (the rows move) or already holds the same bytes (a copy into every row).
void BM_MergeDisjoint(benchmark::State &st) {
  for (auto _ : st) {
    st.PauseTiming();
    hexdata *dst = hex_create(), *src = hex_create();
    fill(dst, 0, 16 * kMiB, 4096, &owners[0]);
    fill(src, 16 * kMiB, 16 * kMiB, 4096, &owners[1]);
    st.ResumeTiming();
    benchmark::DoNotOptimize(hex_mergeFrom(dst, src, 0));
    st.PauseTiming();
    hex_destroy(src);
    hex_destroy(dst);
    st.ResumeTiming();
  }
}
BENCHMARK(BM_MergeDisjoint)->Unit(benchmark::kMillisecond);

void BM_MergeOverlapping(benchmark::State &st) {
  const int force = int(st.range(0));
  hexdata *src = hex_create();
  fill(src, 0, 16 * kMiB, 4096, &owners[1]);
  for (auto _ : st) {
    st.PauseTiming();
    hexdata *dst = hex_create();
    fill(dst, 0, 16 * kMiB, 4096, &owners[0]);
    st.ResumeTiming();
    benchmark::DoNotOptimize(copyRows(dst, src, force));
    st.PauseTiming();
    hex_destroy(dst);
    st.ResumeTiming();
  }
  hex_destroy(src);
}
BENCHMARK(BM_MergeOverlapping)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// 20,000 records of 16 bytes spread over the whole 32-bit space.
hexdata *sparseImage() {
  hexdata *h = hex_create();
  std::mt19937 rng(3);
  const std::vector<uint8_t> rec = pattern(16);
  for (int i = 0; i < 20000; ++i)
    hex_storeBytes(h, uint64_t(rng()) & ~uint64_t(15), rec.data(), rec.size());
  return h;
}

// Walks every record of the sparse image with hex_nextPresent, the way a
// writer or a find pass hops from one stretch of data to the next.
void BM_NextPresentSparse(benchmark::State &st) {
  hexdata *h = sparseImage();
  for (auto _ : st) {
    uint64_t a = 1, hops = 0, f = 0;
    while (hex_nextPresent(h, a, &f) && f <= 0xFFFFFFFF) {
      ++hops;
      a = f + 16;
    }
    benchmark::DoNotOptimize(hops);
  }
  hex_destroy(h);
}
BENCHMARK(BM_NextPresentSparse)->Unit(benchmark::kMillisecond);

// Bytes scattered over the whole 64-bit space, then every walk the writer,
// the log and the engines make over all of it: create, store, walk, destroy.
hexdata *farImage() {
  hexdata *h = hex_create();
  for (uint64_t a : {uint64_t(0x10), uint64_t(1) << 40, uint64_t(1) << 56, 0xFFFFFFFFFFFFFF00})
    hex_storeByte(h, a, 1);
  return h;
}

void BM_FarBytesWholeSpaceWalks(benchmark::State &st) {
  for (auto _ : st) {
    hexdata *h = farImage();
    uint64_t a = 0, n = 0;
    for (uint64_t next = 0; hex_nextPresent(h, next, &a) && a != UINT64_MAX; next = a + 1)
      ++n;
    benchmark::DoNotOptimize(n + hex_findNoteRange(h, 0x11, UINT64_MAX) +
                             uint64_t(hex_anyPreserved(h, 0, UINT64_MAX)));
    hex_destroy(h);
  }
}
BENCHMARK(BM_FarBytesWholeSpaceWalks)->Unit(benchmark::kMicrosecond);

// ---- peak memory -------------------------------------------------------------

long maxRssKiB() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

// Runs build() in a child and prints its peak resident memory above the
// memory the child started with, per stored byte.
void peak(const char *what, hexdata *(*build)()) {
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    long before = maxRssKiB();
    hexdata *h = build();
    long after = maxRssKiB();
    uint64_t n = hex_getByteCount(h);
    std::printf("%-48s %10llu bytes  peak %7.1f MiB  (+%7.1f MiB, %.2f per byte)\n", what,
                (unsigned long long)n, after / 1024.0, (after - before) / 1024.0,
                n ? (after - before) * 1024.0 / double(n) : 0.0);
    std::fflush(stdout);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
}

int runPeak() {
  peak("16 MiB, 16-byte records, one owner per 4 MiB", [] {
    hexdata *main = hex_create();
    for (int f = 0; f < 4; ++f) { // four input files merged in turn
      hexdata *tmp = hex_create();
      fill(tmp, uint64_t(f) * 4 * kMiB, 4 * kMiB, 16, &owners[f]);
      hex_mergeFrom(main, tmp, 0);
      hex_destroy(tmp);
    }
    return main;
  });
  peak("16 MiB, 16-byte records, owners alternate per record", [] {
    hexdata *h = hex_create();
    for (uint64_t off = 0; off < 16 * kMiB; off += 16) {
      static const std::vector<uint8_t> src = pattern(16);
      hex_storeBytes(h, off, src.data(), 16);
      hex_setNote(h, off, off + 15, &owners[(off >> 4) & 1]);
    }
    return h;
  });
  peak("10 MiB file merged into 10 MiB image (notes)", [] {
    hexdata *main = hex_create();
    fill(main, 0, 10 * kMiB, 16, &owners[0]);
    hexdata *tmp = hex_create();
    fill(tmp, 0x80000000, 10 * kMiB, 16, &owners[1]);
    hex_mergeFrom(main, tmp, 0);
    hex_destroy(tmp);
    return main;
  });
  peak("sparse: 20,000 records of 16 bytes over 4 GiB", sparseImage);
  peak("one byte at 0xFFFFFFFFFFFFFF00", [] {
    hexdata *h = hex_create();
    hex_storeByte(h, 0xFFFFFFFFFFFFFF00, 1);
    return h;
  });
  peak("four bytes at 0x10, 2^40, 2^56, 0xFFFFFFFFFFFFFF00", farImage);
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--peak") == 0)
      return runPeak();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
