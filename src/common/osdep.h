// Operating-system layer: the program's own path, existence tests, the
// current directory, directory listing, and private temporary directories
// that are removed when the process exits normally. Never prints.
#pragma once

#include <optional>
#include <string>
#include <vector>

// Path of the running executable ("/proc/self/exe"); empty when unreadable.
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
// directory and the files in it are removed at normal process exit.
// nullopt when it cannot be made.
std::optional<std::string> os_makePrivateTempDir(const char *tmpl);
