#include "common/atomicfile.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

#include "common/osdep.h"

struct atomic_file {
  FILE *fp = nullptr;
  std::string target; // the final target, links followed
  std::string tmp;    // empty when the target is written straight to
  bool finished = false; // closed, text checked, not yet in place
  bool wrote = false;    // when finished: all of the text was written
};

namespace {

// Longest chain of links followed before giving up, as the system does.
constexpr int MAX_LINKS = 40;

struct resolved {
  std::string path;
  bool direct = false;     // written straight to, never replaced
  bool descriptor = false; // a link that names an open file
};

// A link in /proc (/dev/stdout leads to /proc/self/fd/1) names an open
// file, not a place in a directory: there is nothing beside it to rename.
bool isDescriptorLink(const std::string &link) {
  struct statfs fs;
  return statfs(os_dirname(link).c_str(), &fs) == 0 && fs.f_type == PROC_SUPER_MAGIC;
}

// Follows links from dest to the file they finally name. False with errno
// ELOOP when the chain does not end. A target that cannot be looked at is
// taken as new: creating the file beside it reports why.
bool resolve(const std::string &dest, resolved *r) {
  std::string p = dest;
  for (int hops = 0; hops < MAX_LINKS; ++hops) {
    struct stat st;
    if (lstat(p.c_str(), &st) != 0) {
      r->path = p;
      return true;
    }
    if (!S_ISLNK(st.st_mode)) {
      r->path = p;
      r->direct = !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode);
      return true;
    }
    if (isDescriptorLink(p)) {
      r->path = dest;
      r->direct = r->descriptor = true;
      return true;
    }
    char buf[PATH_MAX];
    const ssize_t n = readlink(p.c_str(), buf, sizeof buf);
    if (n < 0) {
      r->path = p;
      return true;
    }
    const std::string to(buf, static_cast<size_t>(n));
    p = to[0] == '/' ? to : os_join(os_dirname(p), to);
  }
  errno = ELOOP;
  return false;
}

mode_t newFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Temporaries not yet put in place: removed at normal exit. Never
// destroyed, as exit handlers run after static destructors may have started.
std::vector<atomic_file *> &pending() {
  static auto *files = new std::vector<atomic_file *>;
  return *files;
}

void forgetPending(atomic_file *f) {
  auto &v = pending();
  for (size_t i = 0; i < v.size(); ++i) {
    if (v[i] == f) {
      v[i] = v.back();
      v.pop_back();
      return;
    }
  }
}

void finishAtExit() {
  auto &v = pending();
  while (!v.empty())
    atomic_discard(v.back());
}

void addPending(atomic_file *f) {
  // Registered after the first temporary, so this runs before the
  // registry's own exit handler removes what is left.
  static bool registered = false;
  if (!registered)
    registered = std::atexit(finishAtExit) == 0;
  pending().push_back(f);
}

} // namespace

atomic_file *atomic_open(const std::string &dest, std::string *tried) {
  resolved r;
  if (!resolve(dest, &r)) {
    *tried = dest;
    return nullptr;
  }
  auto *f = new atomic_file;
  f->target = r.path;
  int fd;
  if (r.direct) {
    *tried = dest;
    // Through a descriptor, what was written before stays in front.
    fd = open(dest.c_str(), O_WRONLY | O_CLOEXEC | (r.descriptor ? O_APPEND : 0));
  } else {
    f->tmp = os_join(os_dirname(r.path), ".romweld-XXXXXX");
    fd = os_makeTempFile(&f->tmp);
    *tried = f->tmp;
  }
  if (fd >= 0 && !(f->fp = fdopen(fd, "w"))) {
    const int e = errno;
    close(fd);
    if (!f->tmp.empty())
      os_removeTemp(f->tmp);
    fd = -1;
    errno = e;
  }
  if (fd < 0) {
    const int e = errno;
    delete f;
    errno = e;
    return nullptr;
  }
  if (!f->tmp.empty())
    addPending(f);
  return f;
}

FILE *atomic_stream(const atomic_file *f) { return f->fp; }

std::string atomic_targetOf(const std::string &dest) {
  resolved r;
  if (!resolve(dest, &r))
    return dest;
  char dir[PATH_MAX];
  if (!realpath(os_dirname(r.path).c_str(), dir))
    return r.path;
  const size_t slash = r.path.find_last_of('/');
  return os_join(dir, slash == std::string::npos ? r.path : r.path.substr(slash + 1));
}

bool atomic_finish(atomic_file *f) {
  bool wrote = std::fflush(f->fp) == 0 && !std::ferror(f->fp);
  if (!f->tmp.empty()) {
    // The mode is set before the rename, so the text never shows under the
    // target's name with the temporary's private mode.
    const int fd = fileno(f->fp);
    struct stat st;
    if (stat(f->target.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      // Owner first: changing it clears set-user-ID bits the mode restores.
      // Where the owner cannot be given away, the mode still follows.
      if (fchown(fd, st.st_uid, st.st_gid) != 0) {
      }
      fchmod(fd, st.st_mode & 07777);
    } else {
      fchmod(fd, newFileMode());
    }
  }
  wrote = std::fclose(f->fp) == 0 && wrote;
  f->fp = nullptr;
  f->finished = true;
  f->wrote = wrote;
  if (!wrote && !f->tmp.empty()) {
    forgetPending(f);
    os_removeTemp(f->tmp);
    f->tmp.clear();
  }
  return wrote;
}

bool atomic_place(atomic_file *f) {
  forgetPending(f);
  bool placed = f->wrote;
  if (placed && !f->tmp.empty() && !os_renameTemp(f->tmp, f->target)) {
    os_removeTemp(f->tmp);
    placed = false;
  }
  delete f;
  return placed;
}

atomic_result atomic_commit(atomic_file *f) {
  if (!atomic_finish(f)) {
    atomic_discard(f);
    return ATOMIC_WRITE_FAILED;
  }
  return atomic_place(f) ? ATOMIC_OK : ATOMIC_CREATE_FAILED;
}

void atomic_discard(atomic_file *f) {
  forgetPending(f);
  if (f->fp)
    std::fclose(f->fp);
  if (!f->tmp.empty())
    os_removeTemp(f->tmp);
  delete f;
}
