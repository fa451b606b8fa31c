// The argument framework's three orders and process(). Matching, '+'
// warnings and help ending the run are seen in test/cli (arguments, help).
#include "romweld/args.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "romweld/settings.h"

namespace {

// The row of each kind is the one whose usage a malformed argument shows;
// the listing of these rows is checked in help.test.
TEST(ArgTable, EveryKindHasOneRowInHelpOrder) {
  const uint32_t expected[] = {
      ARGT_INFILE, ARGT_ADDRESSING, ARGT_BREAK,  ARGT_CHECKSUM, ARGT_DELETE,
      ARGT_FILL,   ARGT_FIND,       ARGT_FORMAT, ARGT_HELP,     ARGT_LOGFILE,
      ARGT_MASK,   ARGT_OUTFILE,    ARGT_SERIAL, ARGT_SIZE,     ARGT_STRING,
      ARGT_STRPACK, ARGT_REPLACE,   ARGT_SLA,    ARGT_SSA};
  ASSERT_EQ(std::size(argt_table), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i)
    EXPECT_EQ(argt_rowOf(expected[i]), &argt_table[i]) << "row " << i;
}

TEST(ArgTable, ParserOrderKeepsTheFixedRelativeOrder) {
  // Every parser's place, whether or not its option exists yet.
  const std::vector<uint32_t> full = {
      ARGT_INFILE,  ARGT_SLA,    ARGT_SSA,     ARGT_ADDRESSING, ARGT_BREAK, ARGT_CHECKSUM,
      ARGT_FILL,    ARGT_DELETE, ARGT_REPLACE, ARGT_FORMAT,     ARGT_MASK,  ARGT_OUTFILE,
      ARGT_SERIAL,  ARGT_SIZE,   ARGT_STRING,  ARGT_FIND,       ARGT_LOGFILE, ARGT_HELP};
  size_t at = 0;
  for (size_t i = 0; i < argt_parserCount; ++i) {
    const uint32_t k = argt_parserOrder[i].kinds[0];
    ASSERT_NE(argt_parserOrder[i].parse, nullptr);
    auto it = std::find(full.begin() + static_cast<long>(at), full.end(), k);
    ASSERT_NE(it, full.end()) << "kind " << k << " out of place or twice";
    at = static_cast<size_t>(it - full.begin()) + 1;
  }
}

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

// Records run grouped by kind in the fixed order, whatever the command-line
// order; finds, serials and strings run last given first, -LOGFILE has no
// step of its own, and an operation that fails ends the run.
TEST(Pipeline, KindsRunInTheirFixedOrderUntilOneFails) {
  args_reset();
  romweld.output.suppress = true; // nothing to write in these runs
  const std::pair<uint32_t, const char *> given[] = {
      {ARGT_SIZE, "size"},       {ARGT_CHECKSUM, "ck"},   {ARGT_FILL, "fill1"},
      {ARGT_MASK, "mask1"},      {ARGT_OUTFILE, "out"},   {ARGT_FIND, "find"},
      {ARGT_SERIAL, "serial1"},  {ARGT_STRING, "string"}, {ARGT_BREAK, "break"},
      {ARGT_REPLACE, "replace"}, {ARGT_INFILE, "in"},     {ARGT_FILL, "fill2"},
      {ARGT_SSA, "ssa"},         {ARGT_SERIAL, "serial2"}, {ARGT_FORMAT, "format"},
      {ARGT_STRPACK, "strpack"}, {ARGT_SLA, "sla"},       {ARGT_DELETE, "delete"},
      {ARGT_LOGFILE, "log"},     {ARGT_ADDRESSING, "addressing"}, {ARGT_MASK, "mask2"}};
  for (auto [kind, text] : given)
    push(kind, text);
  romweld.addressing = 4; // left over from an earlier run
  ASSERT_TRUE(process(1));
  std::vector<std::string> want = {
      "format", "addressing", "ssa",   "sla",   "in",    "mask1",   "mask2",  "delete",
      "replace", "find",      "serial2", "serial1", "strpack", "string", "fill1", "fill2",
      "mask1",  "mask2",      "ck",    "mask1", "mask2", "out",     "break",  "size"};
  EXPECT_EQ(g_ran, want);
  EXPECT_NE(romweld.hex, nullptr) << "an image exists without input files";
  EXPECT_EQ(romweld.addressing, 0u);

  g_ran.clear();
  push(ARGT_SERIAL, "serial!");
  EXPECT_FALSE(process(1));
  want.resize(10);
  want.push_back("serial!");
  EXPECT_EQ(g_ran, want);
  args_reset();
}

TEST(Args, AddfFormatsTheArgumentText) {
  args_reset();
  EXPECT_TRUE(args_addf("part%d.hex", 2));
  EXPECT_EQ(args_text(0), "part2.hex");
  args_reset();
}

} // namespace
