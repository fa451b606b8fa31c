// The mode a new file gets is not visible from the command line without a
// shell's umask; links, devices, kept modes and failures are in
// test/cli/output.test.
#include "common/atomicfile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

TEST(AtomicFile, NewFileGetsTheUmaskMode) {
  char tmpl[] = "/tmp/romweld-atomic-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  const std::string dir = tmpl;
  const mode_t old = umask(027);
  for (const char *name : {"kept.hex", "dropped.hex"}) {
    const std::string dest = dir + "/" + name;
    std::string tried;
    atomic_file *f = atomic_open(dest, false, &tried);
    ASSERT_NE(f, nullptr) << tried;
    std::fputs("text\n", atomic_stream(f));
    if (std::string(name) == "kept.hex") {
      ASSERT_EQ(atomic_commit(f), ATOMIC_OK);
      struct stat st;
      ASSERT_EQ(stat(dest.c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 07777, 0640u); // not the temporary's 0600
    } else {
      atomic_discard(f);
      EXPECT_NE(access(dest.c_str(), F_OK), 0);
    }
  }
  umask(old);
  EXPECT_EQ(unlink((dir + "/kept.hex").c_str()), 0);
  EXPECT_EQ(rmdir(dir.c_str()), 0) << "a temporary was left beside the target";
}
