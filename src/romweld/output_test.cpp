// A run ended by SIGINT, SIGTERM or SIGHUP exits 1 and leaves none of its
// temporaries: not the log's file beside its target, not the message
// service's private directory. The tool reads an input that is a FIFO, so
// it waits at a known step with both made; "--edf" makes the service load
// its English file (and so make its directory) at once, and /dev/null,
// older than any message file, changes no text.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "common/osdep.h"

namespace {

// Other runs on the machine make private directories too. As root the tool
// runs with a group nobody else uses, which tells its directory apart.
constexpr gid_t RUN_GROUP = 31339;

std::set<std::string> names(const std::string &dir) {
  auto v = os_listDir(dir).value_or(std::vector<std::string>{});
  return {v.begin(), v.end()};
}

std::set<std::string> privateDirs() {
  std::set<std::string> dirs;
  for (const std::string &n : names("/tmp")) {
    struct stat st;
    const std::string d = "/tmp/" + n;
    if (n.rfind("zk", 0) == 0 && stat(d.c_str(), &st) == 0 &&
        (geteuid() != 0 || st.st_gid == RUN_GROUP))
      dirs.insert(d);
  }
  return dirs;
}

TEST(InterruptedRun, LeavesNoTemporaries) {
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    SCOPED_TRACE(strsignal(sig));
    char tmpl[] = "/tmp/romweld-interrupt-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, fifo = dir + "/in.hex";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::set<std::string> before = privateDirs();
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      if ((geteuid() != 0 || setgid(RUN_GROUP) == 0) && chdir(dir.c_str()) == 0)
        execl(ROMWELD_EXE, "romweld", "--edf=/dev/null", "in.hex", "-LOGFILE=run.log",
              "-Oout.hex", static_cast<char *>(nullptr));
      _exit(127);
    }
    // The FIFO opens for writing once the tool opens it for reading.
    int w, status = 0;
    while ((w = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) < 0 && errno == ENXIO) {
      ASSERT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the tool ended before reading";
      usleep(1000);
    }
    ASSERT_GE(w, 0);
    EXPECT_EQ(names(dir).size(), 2u) << "the log's temporary file is there";
    std::set<std::string> made;
    for (const std::string &d : privateDirs())
      if (!before.count(d))
        made.insert(d);
    EXPECT_FALSE(made.empty()) << "the private directory is there";

    ASSERT_EQ(kill(pid, sig), 0);
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    close(w);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "status " << status;
    EXPECT_EQ(names(dir), std::set<std::string>{"in.hex"});
    for (const std::string &d : made)
      EXPECT_FALSE(os_fileExists(d)) << d;
    unlink(fifo.c_str());
    rmdir(dir.c_str());
  }
}

} // namespace
