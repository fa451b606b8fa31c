// Argument framework: the argument record, the 19 argument kinds and their
// table (names, usage, help and example texts, in help-listing order), the
// matching of an argument text against the parsers in their fixed order,
// the argument error/warning messages (1600/1601) every option uses, and
// process(): the records' operations run grouped by kind in a fixed order.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/check.h"
#include "romweld/argspec.h"

enum argt : uint32_t {
  ARGT_INFILE = 1,
  ARGT_SLA = 2,
  ARGT_SSA = 3,
  ARGT_ADDRESSING = 4,
  ARGT_BREAK = 5,
  ARGT_CHECKSUM = 6,
  ARGT_FIND = 7,
  ARGT_DELETE = 8,
  ARGT_REPLACE = 9,
  ARGT_FORMAT = 10,
  ARGT_MASK = 11,
  ARGT_OUTFILE = 12,
  ARGT_SERIAL = 13,
  ARGT_SIZE = 14,
  ARGT_STRING = 15,
  ARGT_STRPACK = 16,
  ARGT_FILL = 17,
  ARGT_LOGFILE = 18,
  ARGT_HELP = 19,
};

// Parser outcomes; 0 means "not this parser's option".
enum { MATCH_NONE = 0, MATCH_OK = 1, MATCH_ERROR = 2 };

struct romweld_arg;
using romweld_op = bool (*)(romweld_arg *);

struct romweld_arg {
  uint32_t id = 0;          // the kind; never 0 once parsed
  std::string str;          // argument text as given, '+' included
  romweld_op op = nullptr;  // the kind's operation, set by the parser
  argspec spec;             // the kind's data (argspec.h)
};

// The record's kind data of type Spec: a parser starts it with arg_newSpec,
// its operation reads it with arg_spec. Asking a record for another kind's data
// is a programming error.
template <class Spec>
Spec &arg_newSpec(romweld_arg *a) {
  return a->spec.emplace<Spec>();
}
template <class Spec>
const Spec &arg_spec(const romweld_arg *a) {
  const Spec *s = std::get_if<Spec>(&a->spec);
  ROMWELD_ASSERT(s != nullptr);
  return *s;
}

struct argt_row {
  uint32_t id;
  const char *name;
  const char *usage;
  const char *help;
  const char *example;
};
extern const argt_row argt_table[19];
const argt_row *argt_rowOf(uint32_t id);

// Adding arguments (parsing happens here, before any processing).
bool args_add(const std::string &text);
bool args_addList(const std::vector<std::string> &list); // stops at first failure
const std::vector<std::unique_ptr<romweld_arg>> &args_all();
void args_reset(); // drops all records and resets the run (settings.h)

// Runs the pipeline (mode 1); mode 0 does nothing and returns false.
bool process(int mode);

// Message 1600 (error) / 1601 (warning): the argument's text and a
// description formatted from fmt.
void arg_error(const romweld_arg *a, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void arg_warning(const romweld_arg *a, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Option-word matching shared by the parsers: skips one optional '+', then
// compares `word` case-insensitively over its length. Returns the text just
// past the word, or null when it does not match; *plus tells whether '+'
// was given.
const char *arg_matchWord(const romweld_arg *a, const char *word, bool *plus);
// For the options that store no data: matches `word` as above and, when it
// matches, sets the record's kind to `id` and issues "'+' prefix is not
// supported by <word>" (the word in lower case) if '+' was given.
const char *arg_claimWord(romweld_arg *a, const char *word, uint32_t id);

// The opening the option families' parsers share: `word` after an optional
// '+', the record's kind and operation, then '=' (argument error
// "malformed option" without it). A '+' is the family's clobber choice
// (PLUS_TAKEN, told through *plus) or ignored with the warning "'+' prefix
// is not supported by <word>", given once the '=' is found (PLUS_IGNORED)
// or before it is looked for (PLUS_IGNORED_FIRST). Returns the text after
// the '=' with *result MATCH_OK, or null with MATCH_NONE (another option's
// text) or MATCH_ERROR (message issued).
enum arg_plus { PLUS_TAKEN, PLUS_IGNORED, PLUS_IGNORED_FIRST };
const char *arg_open(romweld_arg *a, const char *word, uint32_t id, romweld_op op, arg_plus rule,
                     int *result, bool *plus = nullptr);


// The parsers in the order they are offered an argument text, each with the
// kinds it produces (first kind: the one whose usage a MATCH_ERROR shows
// when the parser left the record's id unset).
using romweld_parser = int (*)(romweld_arg *);
struct argt_parserEntry {
  romweld_parser parse;
  uint32_t kinds[2]; // 0 when unused
};
extern const argt_parserEntry argt_parserOrder[];
extern const size_t argt_parserCount;

// The processing pipeline as data: each step runs the records of its kinds
// (in command-line order or last given first) and then its stage work.
enum step_result { STEP_NEXT, STEP_DONE, STEP_FAIL };
struct argt_step {
  unsigned first, last;  // the step numbers of the run this entry covers
  uint32_t kinds[3];     // 0 when unused
  bool lastFirst;        // reverse command-line order
  step_result (*stage)(size_t ran); // after the records; null when none
};
extern const argt_step argt_steps[];
extern const size_t argt_stepCount;

// Appends a record that is already filled (id and op set), as a parser
// would; for tests that drive process() with records of their own.
romweld_arg *args_append(std::unique_ptr<romweld_arg> a);
