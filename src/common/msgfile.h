// Message description files: the line format, the search for the English
// file (installed message directory, the "dat" directory beside the
// executable's directory, the current directory, and the built-in copy),
// loading with load-if-newer, and lookup of a message entry by number.
//
// Two tables are current: the primary table (the first one loaded) gives
// kind and level, the text table (the latest one loaded) gives the text.
// Every loaded file is merged into the built-in file, which fixes the set
// of numbers; a loaded text whose printf conversions differ from the
// built-in text's is never used (the built-in text stays), so no file can
// make the service read arguments that the caller did not pass.
// Nothing here prints: parsing and loading return the malformed lines they
// met, and the message service (alert.h), which owns no table, reports them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/msgs_en.h"

enum msg_kind : int {
  MSG_FATAL,
  MSG_MESSAGE,
  MSG_ERROR,
  MSG_WARNING,
  MSG_SUPPRESSED, // never read from a file; produced by overrides
};

constexpr uint32_t MSG_MAX_NUMBER = 10000;
constexpr unsigned MSG_LANG_DEFAULT = 255;

struct msg_entry {
  msg_kind kind = MSG_ERROR;
  uint32_t number = 0;
  int32_t level = 0; // warnings only
  std::string text;
};

// Indexed by message number (MSG_MAX_NUMBER + 1 slots); null = no entry.
// Entries are never freed and may be shared between tables.
using msg_table = std::vector<const msg_entry *>;

// The built-in English file: msgs_en_text, msgs_en_size, msgs_en_version.

// --- names and versions ---------------------------------------------------
const char *langStr(unsigned lang);        // 7 "de", 12 "fr", others "en"
std::string legacyMsgFile(unsigned lang);  // "en_msgs.txt"
std::string msgFileSuffix(unsigned lang);  // "_en.msgs"
// Appends the full path of every entry of dir named legacyMsgFile() or
// ending in msgFileSuffix(), in listing order; returns how many.
size_t findMsgFiles(const std::string &dir, unsigned lang,
                    std::vector<std::string> &list);
// The decimal number the file name (without directory) begins with; 0 if none.
uint64_t getMsgFileVersion(const std::string &path);
// Candidate ordering: true when a is preferred to b (higher version; on a
// tie the one inside installDir; else the byte-wise greater path).
bool msgfile_before(const std::string &a, const std::string &b,
                    const std::optional<std::string> &installDir);
// Sorts candidates with the tool's installation directory as tie-break.
void msgfile_sortCandidates(std::vector<std::string> &list);

// --- parsing ----------------------------------------------------------------
// A line the parser could not take whole, with errno as it stood when the
// line was read (a template's "%m" shows it when the line is reported).
struct msg_badLine {
  unsigned line;
  int err;
};
struct msg_parsed {
  std::shared_ptr<msg_table> table;
  std::vector<msg_badLine> malformed; // in file order
};
// Parses an open file into a new table.
msg_parsed msgfile_parse(FILE *fp);
uint32_t msgfile_lastNumber(); // last message number the parser read
// True when `loaded` may stand in for `builtin` as a printf format: the
// same conversions in the same order with the same argument types.
bool msgfile_sameConversions(const char *loaded, const char *builtin);

// --- finding and loading --------------------------------------------------
// What a load did: whether it succeeded, and the malformed lines of the
// file it parsed (none when nothing needed loading), to be reported as
// naming `previous`, the file current before it (none before the first).
struct msg_load {
  bool ok = true;
  std::vector<msg_badLine> malformed;
  std::optional<std::string> previous;
};
// Path of the written-out built-in copy (written on first use, rewritten if
// it vanished); empty when it cannot be made.
std::string msgfile_builtinPath();
// The message files for a language in the first place that has any: the
// installed message directory, the "dat" directory beside the executable's
// directory, the current directory. Unsorted; the built-in copy is not
// among them.
std::vector<std::string> msgfile_search(unsigned lang);
// True when the file msgfile_choose would take out of those found is known
// to have no malformed line without parsing it: the built-in copy is
// preferred whatever path it gets, or the file preferred to it holds the
// built-in text itself (as the installed site file does).
bool msgfile_choiceIsWellFormed(const std::vector<std::string> &found);
// The file to load out of those found and the built-in copy (written out
// here): empty only when nothing was found and the copy cannot be written.
std::string msgfile_choose(std::vector<std::string> found);
std::string msg_filename(unsigned lang); // msgfile_choose(msgfile_search(lang))
// Load-if-newer on the file chosen out of those found; not ok when it
// cannot be opened.
msg_load msgfile_loadChosen(std::vector<std::string> found);
// "--edf=": not ok when path is null or names nothing; else load-if-newer.
msg_load msgfile_loadEdf(const char *path);
// Load-if-newer on the preferred English file of a directory; ok for a
// directory without message files; not ok when dir is null or missing.
msg_load msgfile_loadEdfDir(const char *dir);
// Loads path unless the current file is newer; ok when nothing needed
// loading or the file could be opened.
msg_load msgfile_loadIfNewer(const std::string &path);
// Loads path unconditionally (merged into the built-in file unless it is
// the built-in copy); not ok when it cannot be opened.
msg_load msgfile_load(const std::string &path);
// Installs the built-in table from memory when nothing could be loaded.
void msgfile_useBuiltinIfNone();

// --- lookup ---------------------------------------------------------------
struct msg_info {
  msg_kind kind;
  uint32_t number;
  int32_t level;
  const char *text; // points into a table or a constant; never null
};
extern const char *const msgfile_noDescription;
// The file's kind, level and text for a number (no override applied); an
// undescribed number is an error with msgfile_noDescription.
msg_info msgfile_lookup(unsigned num);
const msg_table *msgfile_primary(); // null before the first load
const char *msgfile_currentPath();  // null before the first load

// Tests only: forget all tables and the current path; optionally replace
// the installation directory used for tie-breaks (nullopt: ask zkinstdir).
void msgfile_resetForTests();
void msgfile_setInstallDirForTests(std::optional<std::optional<std::string>> dir);
