// Installation directories, derived from where the executable lives: a
// tool installed as <prefix>/bin/romweld has the installation directory
// <prefix>, and its message directory is <prefix>/share/romweld when that
// directory exists. A tool run from anywhere else (a build tree) has
// neither. Never prints.
#pragma once

#include <optional>
#include <string>

enum zkinstdir_kind {
  ZKDIR_INSTALL,  // the tool's installation directory
  ZKDIR_MESSAGES, // where installed message description files live
};

std::optional<std::string> zkinstdir(zkinstdir_kind kind);
// The same rules applied to a given executable path (for tests).
std::optional<std::string> zkinstdir_for(zkinstdir_kind kind,
                                         const std::string &exePath);
