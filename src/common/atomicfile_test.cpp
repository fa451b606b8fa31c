// A new file's mode under the umask (the command-line tests cannot set a
// umask); links, devices, kept modes and failures are in test/cli/output.test.
#include "common/atomicfile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

TEST(AtomicFile, NewFileGetsTheUmaskModeNotTheTemporarys) {
  char tmpl[] = "/tmp/romweld-atomic-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dest = std::string(tmpl) + "/new.hex";
  const mode_t old = umask(027);
  std::string tried;
  atomic_file *f = atomic_open(dest, &tried);
  ASSERT_NE(f, nullptr) << tried;
  EXPECT_EQ(atomic_commit(f), ATOMIC_OK);
  umask(old);
  struct stat st;
  ASSERT_EQ(stat(dest.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
  unlink(dest.c_str());
  EXPECT_EQ(rmdir(tmpl), 0) << "a temporary was left beside the target";
}
