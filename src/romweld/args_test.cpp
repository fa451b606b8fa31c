// process(): the records run grouped by kind in the fixed processing order
// (what that order does to an image: test/cli/log.test's whole run). Matching
// in the parser order: parse_test.cpp; help ending the run and the help
// table: test/cli (help) and the manual page's check.
#include "romweld/args.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "romweld/settings.h"

namespace {

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

} // namespace
