// Checksum engine throughput over a 16 MiB image already in memory: CRC-32
// (reflected, eight bytes per step), a 16-bit CRC most significant bit
// first, a 64-bit CRC whose bytes enter below the top (one byte per step),
// SHA-256, SHA-1, the additive sum and Fletcher-16; and, for scale, the
// same CRC-32 with a reversal word that turns off the row-at-a-time path.
#include <cstdint>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "image/hex_errno.h"
#include "image/hexdata_checksum.h"

namespace {

constexpr uint64_t kSize = uint64_t(16) << 20;

hexdata *image() {
  static hexdata *h = [] {
    hexdata *img = hex_create();
    std::vector<uint8_t> buf(1 << 16);
    std::mt19937_64 rng(3);
    for (uint64_t at = 0; at < kSize; at += buf.size()) {
      for (auto &b : buf)
        b = uint8_t(rng());
      hex_storeBytes(img, at, buf.data(), buf.size());
    }
    return img;
  }();
  return h;
}

void run(benchmark::State &st, int32_t g, uint32_t w, uint64_t poly, uint32_t rev = 0) {
  hexdata *h = image();
  ckspec s;
  if (!ckspec_create(&s, g) || !ckspec_setRange(&s, 0, kSize - 1) || !ckspec_setResultWidth(&s, w))
    st.SkipWithError("refused checksum record");
  ckspec_setPoly(&s, poly);
  ckspec_setOffset(&s, ~uint64_t(0));
  ckspec_setRevWordWidth(&s, rev);
  std::vector<uint8_t> out;
  for (auto _ : st) {
    hex_clearErrors();
    benchmark::DoNotOptimize(hex_checksum(h, &s, &out));
  }
  st.SetBytesProcessed(int64_t(st.iterations()) * int64_t(kSize));
}

void BM_CRC32(benchmark::State &st) { run(st, CK_REFCRC, 4, 0x04C11DB7); }
void BM_CRC16_msb(benchmark::State &st) { run(st, CK_CRC, 2, 0x1021); }
void BM_CRC64_msb(benchmark::State &st) { run(st, CK_CRC, 8, 0x42F0E1EBA9EA3693); }
void BM_CRC32_reversedWords(benchmark::State &st) { run(st, CK_REFCRC, 4, 0x04C11DB7, 4); }
void BM_SHA256(benchmark::State &st) { run(st, CK_SHA256, 32, 0); }
void BM_SHA1(benchmark::State &st) { run(st, CK_SHA1, 20, 0); }
void BM_Additive(benchmark::State &st) { run(st, 1, 4, 0); }
void BM_Fletcher16(benchmark::State &st) { run(st, CK_FLETCHER16, 4, 0); }

BENCHMARK(BM_CRC32)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CRC16_msb)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CRC64_msb)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CRC32_reversedWords)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SHA256)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SHA1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Additive)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Fletcher16)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
