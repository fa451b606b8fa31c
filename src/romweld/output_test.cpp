// A run ended by a signal leaves none of its temporaries behind: not the
// log's temporary file beside its target, not the private directory of the
// message service. The built tool is run on an input that is a FIFO, so it
// waits at a known step with both made.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <string>

#include "common/osdep.h"

namespace {

// Other runs on the machine make private directories of their own. Where
// the test may (as root), the tool runs with a group nobody else uses, so
// its directory is told from theirs by its group.
constexpr gid_t RUN_GROUP = 31339;
bool markRun() { return geteuid() == 0; }

std::set<std::string> privateDirs() {
  std::set<std::string> dirs;
  for (const std::string &n : os_listDir("/tmp").value_or(std::vector<std::string>{})) {
    struct stat st;
    const std::string d = "/tmp/" + n;
    if (n.rfind("zk", 0) == 0 && stat(d.c_str(), &st) == 0 &&
        (!markRun() || st.st_gid == RUN_GROUP))
      dirs.insert(d);
  }
  return dirs;
}

std::set<std::string> entries(const std::string &dir) {
  auto names = os_listDir(dir).value_or(std::vector<std::string>{});
  return {names.begin(), names.end()};
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
      if ((!markRun() || setgid(RUN_GROUP) == 0) && chdir(dir.c_str()) == 0)
        execl(ROMWELD_EXE, "romweld", "in.hex", "-LOGFILE=run.log", "-Oout.hex",
              static_cast<char *>(nullptr));
      _exit(127);
    }
    // The FIFO opens for writing once the tool opens it for reading: the
    // log and the message service were set up before the inputs.
    int w = -1, status = 0;
    while ((w = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) < 0 && errno == ENXIO) {
      ASSERT_EQ(waitpid(pid, &status, WNOHANG), 0) << "the tool ended before reading";
      usleep(1000);
    }
    ASSERT_GE(w, 0);
    EXPECT_EQ(entries(dir).size(), 2u) << "the log's temporary file is there";
    std::set<std::string> made;
    for (const std::string &d : privateDirs())
      if (!before.count(d))
        made.insert(d);
    EXPECT_FALSE(made.empty()) << "the private directory is there";

    ASSERT_EQ(kill(pid, sig), 0);
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    close(w);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << "status " << status;
    EXPECT_EQ(entries(dir), std::set<std::string>{"in.hex"});
    for (const std::string &d : made)
      EXPECT_FALSE(os_fileExists(d)) << d;

    unlink(fifo.c_str());
    rmdir(dir.c_str());
  }
}

} // namespace
