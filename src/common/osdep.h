// Operating-system layer: the program's own path, existence tests, the
// current directory, directory listing, and the temporary files and private
// temporary directories of a run. Never prints.
//
// Temporaries are kept in one registry of paths that must not outlive the
// process: whatever is still registered is removed when the process exits
// normally, and when SIGINT, SIGTERM or SIGHUP ends it (exit status 1). The
// signal path uses only async-signal-safe calls on paths copied when they
// were registered. A signal that was ignored when the first path was
// registered stays ignored.
#pragma once

#include <optional>
#include <string>
#include <vector>

// Path of the running executable ("/proc/self/exe", read once); empty when
// unreadable.
std::string os_selfExePath();
// Current working directory; empty when it cannot be read.
std::string os_cwd();

bool os_fileExists(const std::string &path); // anything that stat() finds
bool os_isDir(const std::string &path);
bool os_isRegular(const std::string &path);

// The directory part of a path ("a/b/c" -> "a/b", "c" -> ".", "/c" -> "/").
std::string os_dirname(const std::string &path);
// Joins a directory and a name with one '/'.
std::string os_join(const std::string &dir, const std::string &name);

// Names of the entries of a directory in the order the system lists them,
// without "." and ".."; nullopt when it cannot be opened.
std::optional<std::vector<std::string>> os_listDir(const std::string &dir);

// Makes a fresh directory, readable only by this user, from a template
// whose trailing "XXXXXX" is replaced (e.g. "/tmp/zkXXXXXXX"). The
// directory and the files in it are removed when the process ends.
// nullopt when it cannot be made.
std::optional<std::string> os_makePrivateTempDir(const char *tmpl);

// Creates and opens for writing (mode 0600) a fresh file from *path, a
// template whose trailing "XXXXXX" is replaced; *path then names it. The
// file is removed when the process ends unless os_renameTemp or
// os_removeTemp settles it first. -1 with errno set when it cannot be made.
int os_makeTempFile(std::string *path);
// Moves a registered temporary onto dest; false with errno set when the
// rename fails (the temporary then stays registered).
bool os_renameTemp(const std::string &tmp, const std::string &dest);
// Removes a registered temporary now.
void os_removeTemp(const std::string &tmp);

// Takes SIGINT, SIGTERM and SIGHUP over now, as registering the first
// temporary would: from here on they end the process with status 1. SIGPIPE
// and SIGXFSZ are ignored, so a closed pipe or a file-size limit shows as a
// failed write.
void os_catchEndSignals();

// Removes everything still registered and ends the process with `status`
// at once, without exit handlers: the way out when even reporting failed.
// Async-signal-safe.
[[noreturn]] void os_endNow(int status);
