#include "common/osdep.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

std::string os_selfExePath() {
  char buf[PATH_MAX + 1];
  ssize_t n = readlink("/proc/self/exe", buf, PATH_MAX);
  if (n <= 0)
    return {};
  return std::string(buf, static_cast<size_t>(n));
}

std::string os_cwd() {
  char buf[PATH_MAX + 1];
  if (!getcwd(buf, sizeof buf))
    return {};
  return buf;
}

bool os_fileExists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

bool os_isDir(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool os_isRegular(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string os_dirname(const std::string &path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos)
    return ".";
  if (slash == 0)
    return "/";
  return path.substr(0, slash);
}

std::string os_join(const std::string &dir, const std::string &name) {
  if (dir.empty())
    return name;
  if (dir.back() == '/')
    return dir + name;
  return dir + "/" + name;
}

std::optional<std::vector<std::string>> os_listDir(const std::string &dir) {
  DIR *d = opendir(dir.c_str());
  if (!d)
    return std::nullopt;
  std::vector<std::string> names;
  while (struct dirent *e = readdir(d)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0)
      continue;
    names.emplace_back(e->d_name);
  }
  closedir(d);
  return names;
}

namespace {
std::vector<std::string> &tempDirs() {
  // Never destroyed: the exit handler runs after static destructors may
  // have started.
  static auto *dirs = new std::vector<std::string>;
  return *dirs;
}

// Only flat directories are made here, so one level of removal suffices.
void removeTempDirs() {
  for (const std::string &dir : tempDirs()) {
    if (auto names = os_listDir(dir))
      for (const std::string &n : *names)
        unlink(os_join(dir, n).c_str());
    rmdir(dir.c_str());
  }
  tempDirs().clear();
}
} // namespace

std::optional<std::string> os_makePrivateTempDir(const char *tmpl) {
  std::vector<char> buf(tmpl, tmpl + std::strlen(tmpl) + 1);
  if (!mkdtemp(buf.data()))
    return std::nullopt;
  static bool registered = false;
  if (!registered) {
    registered = std::atexit(removeTempDirs) == 0;
  }
  tempDirs().emplace_back(buf.data());
  return std::string(buf.data());
}
