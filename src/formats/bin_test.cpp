#include "formats/bin.h"

#include <gtest/gtest.h>

#include <csignal>
#include <thread>
#include <unistd.h>

#include "formats/testutil.h"

namespace {

using namespace testutil;

// The bytes as a regular file (measured, then read from the range's start;
// `size` pads it sparsely with zeros) or as a pipe fed by a thread (read in
// blocks, counted as they come).
struct stream {
  FILE *f = nullptr;
  std::thread feeder;
  stream(const std::string &bytes, bool pipe, uint64_t size = 0) {
    int fd[2];
    if (pipe && ::pipe(fd) == 0) {
      f = fdopen(fd[0], "r");
      std::signal(SIGPIPE, SIG_IGN); // the reader may stop at the range's end
      feeder = std::thread([bytes, w = fd[1]] {
        for (size_t at = 0, n = 1; at < bytes.size() && n > 0; at += n)
          n = size_t(std::max<ssize_t>(0, write(w, bytes.data() + at, bytes.size() - at)));
        close(w);
      });
      return;
    }
    f = std::tmpfile();
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    EXPECT_EQ(ftruncate(fileno(f), off_t(std::max<uint64_t>(size, bytes.size()))), 0);
    std::rewind(f);
  }
  ~stream() {
    std::fclose(f);
    if (feeder.joinable())
      feeder.join();
  }
};

struct binFixture : ::testing::Test {
  Hex x = newHex();
  bool read(const stream &s, int64_t start = -1, int64_t end = -1, int32_t offset = 0) {
    hex_clearErrors();
    ihex_readspec settings;
    EXPECT_TRUE(ihex_readspec_setOffset(&settings, offset));
    EXPECT_TRUE(start < 0 || ihex_readspec_setStart(&settings, uint64_t(start)));
    EXPECT_TRUE(end < 0 || ihex_readspec_setEnd(&settings, uint64_t(end)));
    return bin_readToMerge(x.get(), s.f, &settings, nullptr, nullptr);
  }
  std::string written(FILE *out = nullptr) {
    char *p = nullptr;
    size_t n = 0;
    FILE *mem = open_memstream(&p, &n);
    EXPECT_EQ(bin_write(x.get(), out ? out : mem), out ? 0 : 1);
    std::fclose(mem);
    std::string s(p, n);
    std::free(p);
    return s;
  }
};

TEST_F(binFixture, RangeAndOffsetByFileOffsetFromEitherStream) {
  struct {
    const char *what;
    std::string bytes;
    int64_t start, end;
    int32_t offset;
    const char *image, *errs;
  } cases[] = {
      {"whole file", "\x10\x11\x12", -1, -1, 0, "0=10 1=11 2=12", ""},
      {"empty file", "", -1, -1, 0, "", ""},
      {"range inside, moved up", "\x10\x11\x12\x13", 1, 2, 0x100, "101=11 102=12", ""},
      {"range past the end", "\x10\x11", 5, -1, 0, "", ""},
      {"moved down to 0", "\x10\x11\x12", 1, -1, -1, "0=11 1=12", ""},
      {"moved below 0", "\x10\x11", -1, -1, -1, "", "EBELOWZERO"},
  };
  for (const auto &c : cases)
    for (bool pipe : {false, true}) {
      EXPECT_EQ(read(stream(c.bytes, pipe), c.start, c.end, c.offset), !*c.errs) << c.what << pipe;
      EXPECT_EQ(errors(), c.errs) << c.what << pipe;
      EXPECT_EQ(present(x->image), c.image) << c.what << pipe;
    }
  // Ranges that start and end inside the reader's blocks, written back.
  std::string big((3 << 20) + 5, '\0');
  for (size_t i = 0; i < big.size(); ++i)
    big[i] = char(i * 7 + (i >> 20));
  for (auto [first, last] : {std::pair<uint64_t, uint64_t>{0, big.size() - 1}, {(1 << 20) - 1, 2 << 20}})
    for (bool pipe : {false, true}) {
      ASSERT_TRUE(read(stream(big, pipe), int64_t(first), int64_t(last), 16)) << errors();
      EXPECT_EQ(bounds(x->image), "count " + std::to_string(last - first + 1) + " " +
                                      hexText(first + 16) + "-" + hexText(last + 16));
      EXPECT_TRUE(written() == big.substr(first, last - first + 1)) << first << pipe;
    }
}

// What the range keeps is weighed by the file's size before a byte is read.
// (A pipe is weighed as it streams in; past the budget that is 512 MiB held
// in memory, too much for a unit test.)
TEST_F(binFixture, RowBudgetIsCheckedBeforeAnythingIsStored) {
  const uint64_t full = HEX_ROW_BUDGET * 256; // bytes in the budget's rows
  struct { uint64_t size; int64_t start; int32_t offset; const char *image; } cases[] = {
      {full + 1, -1, 0, ""},
      {full, -1, 1, ""}, // moved up, the last byte starts a row of its own
      {full + 1, int64_t(full) - 1, 0, "count 2 1FFFFFFF-20000000"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(read(stream("\x01", false, c.size), c.start, -1, c.offset), *c.image != 0);
    EXPECT_EQ(errors(), *c.image ? "" : "EBUDGET@200001");
    EXPECT_EQ(bounds(x->image), *c.image ? c.image : "count 0");
  }
}

// Gaps inside a row, across rows and wider than the writer's buffer are
// zeros; the top of the address space ends the output; an empty image
// writes nothing; a full disk is EIO.
TEST_F(binFixture, WritesLowestToHighestWithGapsAsZeros) {
  using bytes = std::vector<std::pair<uint64_t, uint8_t>>;
  for (const bytes &c : {bytes{}, bytes{{0x10, 1}, {0x12, 3}}, bytes{{0xFF, 0xAA}, {0x300, 0xBB}},
                         bytes{{5, 1}, {0x250005, 2}}, bytes{{UINT64_MAX - 1, 7}, {UINT64_MAX, 8}}}) {
    hex_clear(x->image);
    std::string want(c.empty() ? 0 : c.back().first - c.front().first + 1, '\0');
    for (auto [a, v] : c) {
      hex_storeByte(x->image, a, v);
      want[a - c.front().first] = char(v);
    }
    EXPECT_TRUE(written() == want) << hexText(c.empty() ? 0 : c.back().first);
  }
  hex_clearErrors();
  FILE *full = std::fopen("/dev/full", "w");
  written(full);
  EXPECT_EQ(errors(), "EIO");
  std::fclose(full);
}

} // namespace
