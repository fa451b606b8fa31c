#include "common/atomicfile.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string tempDir() {
  const char *t = std::getenv("TMPDIR");
  return t && *t ? t : "/tmp";
}

std::string dirOf(const std::string &path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos)
    return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

mode_t defaultMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// Copies the whole of file `from` into the open descriptor `to`.
atomic_result copyInto(const std::string &from, int to) {
  const int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0)
    return ATOMIC_CREATE_FAILED;
  constexpr size_t BLOCK = size_t(1) << 20;
  std::unique_ptr<char[]> buf(new char[BLOCK]);
  atomic_result r = ATOMIC_OK;
  for (;;) {
    ssize_t n = read(in, buf.get(), BLOCK);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0) {
      r = ATOMIC_WRITE_FAILED;
      break;
    }
    if (n == 0)
      break;
    for (ssize_t done = 0; done < n;) {
      ssize_t w = write(to, buf.get() + done, static_cast<size_t>(n - done));
      if (w < 0 && errno == EINTR)
        continue;
      if (w <= 0) {
        close(in);
        return ATOMIC_WRITE_FAILED;
      }
      done += w;
    }
  }
  close(in);
  return r;
}

} // namespace

FILE *atomic_createTemp(std::string *path) {
  *path = tempDir() + "/romweldXXXXXX";
  const int fd = mkostemp(path->data(), O_CLOEXEC);
  if (fd < 0)
    return nullptr;
  FILE *f = fdopen(fd, "w");
  if (!f) {
    const int e = errno;
    close(fd);
    unlink(path->c_str());
    errno = e;
  }
  return f;
}

atomic_result atomic_replace(const std::string &tmp, const std::string &dest) {
  struct stat st;
  const bool exists = stat(dest.c_str(), &st) == 0;
  atomic_result r = ATOMIC_OK;

  if (exists && !S_ISREG(st.st_mode)) {
    // Devices and pipes are written, not replaced: "-O/dev/null" must not
    // turn the device into a regular file.
    const int fd = open(dest.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) {
      r = ATOMIC_CREATE_FAILED;
    } else {
      r = copyInto(tmp, fd);
      if (close(fd) != 0 && r == ATOMIC_OK)
        r = ATOMIC_WRITE_FAILED;
    }
    unlink(tmp.c_str());
    return r;
  }

  const mode_t mode = exists ? (st.st_mode & 07777) : defaultMode();
  chmod(tmp.c_str(), mode);
  if (rename(tmp.c_str(), dest.c_str()) == 0)
    return ATOMIC_OK;
  if (errno != EXDEV) {
    unlink(tmp.c_str());
    return ATOMIC_CREATE_FAILED;
  }

  // Another filesystem: a copy beside the destination, then a rename there.
  std::string beside = dirOf(dest) + "/.romweldXXXXXX";
  const int fd = mkostemp(beside.data(), O_CLOEXEC);
  if (fd < 0) {
    unlink(tmp.c_str());
    return ATOMIC_CREATE_FAILED;
  }
  r = copyInto(tmp, fd);
  if (r == ATOMIC_OK && fchmod(fd, mode) != 0)
    r = ATOMIC_CREATE_FAILED;
  if (close(fd) != 0 && r == ATOMIC_OK)
    r = ATOMIC_WRITE_FAILED;
  if (r == ATOMIC_OK && rename(beside.c_str(), dest.c_str()) != 0)
    r = ATOMIC_CREATE_FAILED;
  if (r != ATOMIC_OK)
    unlink(beside.c_str());
  unlink(tmp.c_str());
  return r;
}
