#include "romweld/args.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "common/alert.h"
#include "romweld/settings.h"

namespace {

std::vector<std::string> g_lines;
void collect(const char *line) { g_lines.push_back(line); }

class Args : public testing::Test {
protected:
  void SetUp() override {
    alert_resetForTests();
    alert_setSink(collect);
    g_lines.clear();
    args_reset();
  }
  void TearDown() override {
    alert_setSink(nullptr);
    args_reset();
  }
};

// ---- the three orders ---------------------------------------------------------

TEST(ArgTable, RowsInHelpOrderWithEveryKindOnce) {
  const uint32_t expected[] = {
      ARGT_INFILE, ARGT_ADDRESSING, ARGT_BREAK,  ARGT_CHECKSUM, ARGT_DELETE,
      ARGT_FILL,   ARGT_FIND,       ARGT_FORMAT, ARGT_HELP,     ARGT_LOGFILE,
      ARGT_MASK,   ARGT_OUTFILE,    ARGT_SERIAL, ARGT_SIZE,     ARGT_STRING,
      ARGT_STRPACK, ARGT_REPLACE,   ARGT_SLA,    ARGT_SSA};
  ASSERT_EQ(std::size(argt_table), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(argt_table[i].id, expected[i]) << "row " << i;
    EXPECT_EQ(argt_rowOf(expected[i]), &argt_table[i]);
  }
  EXPECT_EQ(argt_rowOf(0), nullptr);
  EXPECT_EQ(argt_rowOf(20), nullptr);
}

TEST(ArgTable, ParserOrderKeepsTheFixedRelativeOrder) {
  // Every parser's place, whether or not its option exists yet.
  const std::vector<uint32_t> full = {
      ARGT_INFILE,  ARGT_SLA,    ARGT_SSA,     ARGT_ADDRESSING, ARGT_BREAK, ARGT_CHECKSUM,
      ARGT_FILL,    ARGT_DELETE, ARGT_REPLACE, ARGT_FORMAT,     ARGT_MASK,  ARGT_OUTFILE,
      ARGT_SERIAL,  ARGT_SIZE,   ARGT_STRING,  ARGT_FIND,       ARGT_LOGFILE, ARGT_HELP};
  std::vector<uint32_t> present;
  for (size_t i = 0; i < argt_parserCount; ++i) {
    ASSERT_NE(argt_parserOrder[i].parse, nullptr);
    ASSERT_NE(argt_parserOrder[i].kinds[0], 0u);
    present.push_back(argt_parserOrder[i].kinds[0]);
  }
  size_t at = 0;
  for (uint32_t k : present) {
    auto it = std::find(full.begin() + static_cast<long>(at), full.end(), k);
    ASSERT_NE(it, full.end()) << "kind " << k << " out of place or twice";
    at = static_cast<size_t>(it - full.begin()) + 1;
  }
}

TEST(ArgTable, EveryKindRunsAtItsSteps) {
  const std::map<uint32_t, std::vector<unsigned>> where = {
      {ARGT_HELP, {1}},          {ARGT_ADDRESSING, {3}}, {ARGT_FORMAT, {3}},
      {ARGT_SLA, {5}},           {ARGT_SSA, {5}},        {ARGT_INFILE, {6}},
      {ARGT_MASK, {8, 13, 15}},  {ARGT_FIND, {9}},       {ARGT_DELETE, {9}},
      {ARGT_REPLACE, {9}},       {ARGT_SERIAL, {10}},    {ARGT_STRING, {11}},
      {ARGT_STRPACK, {11}},      {ARGT_FILL, {12}},      {ARGT_CHECKSUM, {14}},
      {ARGT_BREAK, {16}},        {ARGT_OUTFILE, {16}},   {ARGT_SIZE, {17}},
      {ARGT_LOGFILE, {}}};
  for (uint32_t kind = 1; kind <= 19; ++kind) {
    std::vector<unsigned> at;
    for (size_t i = 0; i < argt_stepCount; ++i)
      for (uint32_t k : argt_steps[i].kinds)
        if (k == kind)
          at.push_back(argt_steps[i].first);
    EXPECT_EQ(at, where.at(kind)) << "kind " << kind;
  }
  unsigned next = 1;
  for (size_t i = 0; i < argt_stepCount; ++i) {
    const argt_step &s = argt_steps[i];
    EXPECT_EQ(s.first, next);
    next = s.last + 1;
    EXPECT_EQ(s.lastFirst, s.first >= 9 && s.first <= 11) << "step " << s.first;
  }
  EXPECT_EQ(next, 23u);
}

// ---- matching -------------------------------------------------------------------

TEST_F(Args, MatchingPicksTheKind) {
  struct Row {
    const char *text;
    uint32_t kind; // 0: adding fails
    const char *message;
  };
  const Row rows[] = {
      {"in.hex", ARGT_INFILE, nullptr},
      {"-o", ARGT_OUTFILE, nullptr},
      {"-Oout.hex", ARGT_OUTFILE, nullptr},
      {"-SiZe", ARGT_SIZE, nullptr},
      {"-help", ARGT_HELP, nullptr},
      {"+-HELP=", ARGT_HELP, "'+' prefix is not supported by -help"},
      {"+-", 0, "unknown option \"+-\""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    g_lines.clear();
    const size_t before = args_count();
    testing::internal::CaptureStdout();
    const bool ok = args_add(row.text);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(ok, row.kind != 0);
    if (ok) {
      ASSERT_EQ(args_count(), before + 1);
      EXPECT_EQ(args_all().back()->id, row.kind);
      EXPECT_EQ(args_text(before), row.text);
      EXPECT_EQ(out, "");
    } else {
      EXPECT_EQ(args_count(), before);
    }
    if (row.message) {
      ASSERT_EQ(g_lines.size(), 1u);
      EXPECT_NE(g_lines[0].find(row.message), std::string::npos) << g_lines[0];
    } else {
      EXPECT_TRUE(g_lines.empty());
    }
  }
  EXPECT_EQ(args_text(args_count()), "");
}

TEST_F(Args, AddingAListStopsAtTheFirstFailure) {
  EXPECT_FALSE(args_addList({"a.hex", "-nothing", "b.hex"}));
  ASSERT_EQ(args_count(), 1u);
  EXPECT_EQ(args_text(0), "a.hex");
  EXPECT_EQ(g_lines.size(), 1u);
  EXPECT_TRUE(args_addf("part%d.hex", 2));
  EXPECT_EQ(args_text(1), "part2.hex");
}

// ---- processing -----------------------------------------------------------------

std::vector<std::string> g_ran;
// Records that it ran; a text ending in '!' stops the run.
bool traceOp(romweld_arg *a) {
  g_ran.push_back(a->str);
  return a->str.back() != '!';
}

void push(uint32_t kind, const char *text) {
  auto a = std::make_unique<romweld_arg>();
  a->id = kind;
  a->str = text;
  a->op = traceOp;
  args_append(std::move(a));
}

class Pipeline : public Args {
protected:
  void SetUp() override {
    Args::SetUp();
    g_ran.clear();
    romweld.output.suppress = true; // nothing to write in these runs
  }
};

TEST_F(Pipeline, KindsRunInTheirFixedOrder) {
  push(ARGT_CHECKSUM, "ck1");
  push(ARGT_FILL, "fill1");
  push(ARGT_MASK, "mask1");
  push(ARGT_FIND, "find1");
  push(ARGT_SERIAL, "serial1");
  push(ARGT_STRING, "string1");
  push(ARGT_REPLACE, "replace1");
  push(ARGT_FILL, "fill2");
  push(ARGT_SERIAL, "serial2");
  push(ARGT_STRPACK, "strpack1");
  push(ARGT_DELETE, "delete1");
  push(ARGT_MASK, "mask2");
  romweld.addressing = 4; // left over from an earlier run
  ASSERT_TRUE(process(1));
  const std::vector<std::string> want = {
      "mask1",   "mask2",    "delete1", "replace1", "find1", "serial2", "serial1",
      "strpack1", "string1", "fill1",   "fill2",    "mask1", "mask2",   "ck1",
      "mask1",   "mask2"};
  EXPECT_EQ(g_ran, want);
  EXPECT_NE(romweld.hex, nullptr) << "an image exists without input files";
  EXPECT_EQ(romweld.addressing, 0u);
}

TEST_F(Pipeline, AFailingOperationStopsTheRun) {
  push(ARGT_CHECKSUM, "ck1");
  push(ARGT_SERIAL, "serial!");
  push(ARGT_MASK, "mask1");
  EXPECT_FALSE(process(1));
  EXPECT_EQ(g_ran, (std::vector<std::string>{"mask1", "serial!"}));
}

TEST_F(Pipeline, HelpEndsTheRunBeforeAnythingElse) {
  push(ARGT_MASK, "mask1");
  push(ARGT_HELP, "help1");
  push(ARGT_HELP, "help2");
  EXPECT_TRUE(process(1));
  EXPECT_EQ(g_ran, (std::vector<std::string>{"help1", "help2"}));
  EXPECT_EQ(romweld.hex, nullptr);
}

} // namespace
