// Argument-list building: the process arguments, without the program path,
// become a flat list of strings. Empty arguments are dropped; "@file"
// arguments naming a readable file are replaced by that command file's
// words (which may name further command files); backslash escapes are
// resolved. Problems (over-long words, command files that cannot be read,
// include themselves or nest too deeply) are reported as numbered messages.
#pragma once

#include <string>
#include <vector>

// Longest word of a command file; longer words are cut (message 917).
constexpr size_t CMDLINE_MAX_WORD = 2047;
// Deepest nesting of command files.
constexpr unsigned CMDLINE_MAX_DEPTH = 16;
// A command file holds options, not data: one larger than this is refused
// at once, before it is read.
constexpr size_t CMDLINE_MAX_FILE_BYTES = size_t(1) << 20;

// *complete (when given) becomes false when a command file could not be
// expanded whole (a read error, a file that includes itself, nesting too
// deep); each such file was reported with message 1600.
std::vector<std::string> cmdline_build(int argc, const char *const *argv,
                                       bool *complete = nullptr);

// The words of command-file text, before escape resolution of whole
// arguments (for tests and for cmdline_build).
std::vector<std::string> cmdline_splitWords(const std::string &text);
// Resolves "\ ", "\"", "\'" and "\\" to their second character.
std::string cmdline_unescape(const std::string &arg);
