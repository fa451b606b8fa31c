#include "common/zkinstdir.h"

#include "common/osdep.h"

std::optional<std::string> zkinstdir_for(zkinstdir_kind kind,
                                         const std::string &exePath) {
  if (exePath.empty() || exePath.find('/') == std::string::npos)
    return std::nullopt;
  std::string bin = os_dirname(exePath);
  size_t slash = bin.find_last_of('/');
  std::string leaf = slash == std::string::npos ? bin : bin.substr(slash + 1);
  if (leaf != "bin")
    return std::nullopt;
  std::string prefix = os_dirname(bin);
  if (kind == ZKDIR_INSTALL)
    return prefix;
  std::string msgs = os_join(prefix, "share/romweld");
  if (!os_isDir(msgs))
    return std::nullopt;
  return msgs;
}

std::optional<std::string> zkinstdir(zkinstdir_kind kind) {
  return zkinstdir_for(kind, os_selfExePath());
}
