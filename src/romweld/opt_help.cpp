// -HELP: the listing of the argument table, or the usage block of one row.
#include <cctype>
#include <cstring>
#include <iterator>
#include <strings.h>

#include "common/alert.h"
#include "romweld/args.h"
#include "romweld/options.h"
#include "romweld/usage.h"

namespace {

// A row's name as "-help=" looks it up: without its leading punctuation.
const char *bareName(const char *name) {
  while (*name && !std::isalnum(static_cast<unsigned char>(*name)))
    ++name;
  return name;
}

} // namespace

int parseHELP(romweld_arg *a) {
  const char *p = arg_claimWord(a, "-help", ARGT_HELP);
  if (!p)
    return MATCH_NONE;
  a->op = doHELP;
  int &row = arg_newSpec<help_spec>(a).row;
  if (*p == '\0')
    return MATCH_OK;
  if (*p != '=') {
    arg_error(a, "malformed option");
    return MATCH_ERROR;
  }
  const char *want = p + 1;
  if (*want == '\0')
    return MATCH_OK;
  while (*want == ',' || *want == '-')
    ++want;

  // Several rows could share a bare name; the last one wins.
  for (int i = 0; i < static_cast<int>(std::size(argt_table)); ++i)
    if (strcasecmp(bareName(argt_table[i].name), want) == 0)
      row = i;
  if (row < 0 && strcasecmp(want, "file") == 0)
    row = static_cast<int>(argt_rowOf(ARGT_INFILE) - argt_table);
  if (row < 0) {
    alert<953>(want);
    return MATCH_ERROR;
  }
  return MATCH_OK;
}

bool doHELP(romweld_arg *a) {
  const int chosen = arg_spec<help_spec>(a).row;
  if (chosen < 0) {
    for (const argt_row &row : argt_table)
      usage_printLine(row.name, row.help);
  } else {
    const argt_row &row = argt_table[chosen];
    usage_printBlock(row.name, row.help, row.usage, row.example);
  }
  return usage_flushStdout();
}
