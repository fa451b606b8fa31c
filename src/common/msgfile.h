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
// Parsing reports malformed lines through the message service (message 3);
// nothing else here prints, except the fatal "Could not open message file".
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

// --- finding and loading --------------------------------------------------
// Path of the written-out built-in copy (written on first use, rewritten if
// it vanished); empty when it cannot be made.
std::string msgfile_builtinPath();
// The file to load for a language: never empty unless even the built-in
// copy cannot be written.
std::string msg_filename(unsigned lang);
// "--edf=": false when path is null or names nothing; else load-if-newer.
bool open_edf(const char *path);
// Load-if-newer on the preferred English file of a directory; true for a
// directory without message files; false when dir is null or missing.
bool open_edf_dir(const char *dir);
// Finds and loads the file for a language. Once the message service is
// initialised, a failed load ends the process with status 1.
void msgfile_loadLanguage(unsigned lang);
// Loads path unless the current file is newer; true when nothing needed
// loading or the file could be opened.
bool msgfile_loadIfNewer(const std::string &path);
// Loads path unconditionally (merged into the built-in file unless it is
// the built-in copy); false when it cannot be opened.
bool msgfile_load(const std::string &path);
// Installs the built-in table from memory when nothing could be loaded.
void msgfile_useBuiltinIfNone();

// --- parsing ----------------------------------------------------------------
// Parses an open file into a new table; malformed lines are reported as
// message 3 naming reportPath (the file current before this load).
std::shared_ptr<msg_table> msgfile_parse(FILE *fp, const char *reportPath);
uint32_t msgfile_lastNumber(); // last message number the parser read
// True when `loaded` may stand in for `builtin` as a printf format: the
// same conversions in the same order with the same argument types.
bool msgfile_sameConversions(const char *loaded, const char *builtin);

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
