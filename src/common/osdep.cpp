#include "common/osdep.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "common/check.h"

std::string os_selfExePath() {
  // Asked for by every message file search; one look serves the run.
  static const std::string path = [] {
    char buf[PATH_MAX + 1];
    ssize_t n = readlink("/proc/self/exe", buf, PATH_MAX);
    return n <= 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
  }();
  return path;
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

// ---- the registry of paths removed when the process ends ---------------------

namespace {

// Fixed slots, so that the signal handler never meets a container in the
// middle of growing. A run holds a handful of temporaries at a time.
constexpr size_t MAX_TEMPS = 64;
// Only the process that registered a path removes it: a forked child that
// exits must not take its parent's temporaries along.
struct endSlot {
  std::atomic<char *> path{nullptr};
  std::atomic<bool> dir{false};
  std::atomic<pid_t> owner{0};
};
endSlot g_slots[MAX_TEMPS];

const int END_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

// Holds back the end signals while the registry and the file system are
// changed together, so a temporary never exists unregistered.
struct holdSignals {
  sigset_t old;
  holdSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (int s : END_SIGNALS)
      sigaddset(&set, s);
    sigprocmask(SIG_BLOCK, &set, &old);
  }
  ~holdSignals() { sigprocmask(SIG_SETMASK, &old, nullptr); }
};

// Empties a flat directory and removes it; async-signal-safe. Entries are
// removed while the directory is read, so it is read again until a pass
// finds nothing left (bounded: nothing else adds to a private directory).
void removeDir(const char *path) {
  for (int pass = 0; pass < 4; ++pass) {
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
      break;
    bool removed = false;
    alignas(struct dirent64) char buf[4096];
    ssize_t n;
    while ((n = getdents64(fd, buf, sizeof buf)) > 0) {
      for (ssize_t off = 0; off < n;) {
        const auto *e = reinterpret_cast<const struct dirent64 *>(buf + off);
        off += e->d_reclen;
        const char *name = e->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
          continue;
        removed |= unlinkat(fd, name, 0) == 0;
      }
    }
    close(fd);
    if (!removed)
      break;
  }
  rmdir(path);
}

// Async-signal-safe unless freeCopies: atomics, unlink, rmdir and the
// calls of removeDir.
void removeRegistered(bool freeCopies) {
  const pid_t self = getpid();
  for (endSlot &s : g_slots) {
    if (s.owner.load() != self)
      continue;
    char *p = s.path.exchange(nullptr);
    if (!p)
      continue;
    if (s.dir.load())
      removeDir(p);
    else
      unlink(p);
    if (freeCopies)
      delete[] p;
  }
}

void onEndSignal(int) { os_endNow(1); }

void removeAtExit() { removeRegistered(true); }

void installHandlers() {
  static bool installed = false;
  if (installed)
    return;
  installed = true;
  std::atexit(removeAtExit);
  for (int sig : END_SIGNALS) {
    struct sigaction old;
    if (sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN)
      continue;
    struct sigaction sa {};
    sa.sa_handler = onEndSignal;
    sigemptyset(&sa.sa_mask);
    for (int s : END_SIGNALS)
      sigaddset(&sa.sa_mask, s);
    sigaction(sig, &sa, nullptr);
  }
  // A closed pipe or an exceeded file-size limit is a write error that the
  // writer reports, not a signal that ends the run without a word and
  // leaves its temporaries behind.
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
}

// A copy of a temporary's template, made before the temporary exists: once
// it exists, nothing may fail before it is registered for removal.
char *copyOf(const char *tmpl) {
  const size_t n = std::strlen(tmpl) + 1;
  char *copy = new char[n];
  std::memcpy(copy, tmpl, n);
  return copy;
}

// Call with the end signals held. Takes over `path`, a copyOf.
void registerPath(char *path, bool dir) {
  for (endSlot &s : g_slots) {
    if (s.path.load() == nullptr) {
      s.dir.store(dir);
      s.owner.store(getpid());
      s.path.store(path);
      return;
    }
  }
  check_failed("a free slot among the run's temporaries", __FILE__, __LINE__);
}

// Call with the end signals held.
void forgetPath(const std::string &path) {
  for (endSlot &s : g_slots) {
    char *p = s.path.load();
    if (p && path == p) {
      s.path.store(nullptr);
      delete[] p;
      return;
    }
  }
}

} // namespace

std::optional<std::string> os_makePrivateTempDir(const char *tmpl) {
  installHandlers();
  char *path = copyOf(tmpl);
  std::string made; // made before the directory, for the same reason
  made.reserve(std::strlen(tmpl));
  holdSignals hold;
  if (!mkdtemp(path)) {
    delete[] path;
    return std::nullopt;
  }
  registerPath(path, true);
  made = path;
  return made;
}

int os_makeTempFile(std::string *path) {
  installHandlers();
  char *copy = copyOf(path->c_str());
  holdSignals hold;
  const int fd = mkostemp(copy, O_CLOEXEC);
  if (fd < 0) {
    delete[] copy;
    return fd;
  }
  std::memcpy(path->data(), copy, path->size());
  registerPath(copy, false);
  return fd;
}

bool os_renameTemp(const std::string &tmp, const std::string &dest) {
  holdSignals hold;
  if (rename(tmp.c_str(), dest.c_str()) != 0)
    return false;
  forgetPath(tmp);
  return true;
}

void os_removeTemp(const std::string &tmp) {
  const int e = errno;
  holdSignals hold;
  unlink(tmp.c_str());
  forgetPath(tmp);
  errno = e;
}

void os_catchEndSignals() { installHandlers(); }

void os_endNow(int status) {
  removeRegistered(false);
  _exit(status);
}
