// Message service: styles, filtering, counting, limits and the text cuts.
#include "common/alert.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "common/msgfile.h"

namespace {

using Lines = std::vector<std::string>;
Lines lines;
void capture(const char *line) { lines.emplace_back(line); }

class Alert : public ::testing::Test {
protected:
  void SetUp() override {
    for (const char *v : {"ZKC_ERR_FORMAT", "ZKC_WARN_FORMAT", "ZKC_MSG_FORMAT"})
      unsetenv(v);
    restart();
  }
  void TearDown() override { alert_resetForTests(); }
  // A fresh service in template style, after the test has set the templates.
  static void restart(bool templates = false) {
    alert_resetForTests();
    alert_setSink(capture);
    if (templates)
      alert_setTemplateStyle(1);
    lines.clear();
  }
};

// The plain style of errors, warnings and messages is in every command-line
// test; an undescribed number is an error with the fixed text.
TEST_F(Alert, UndescribedNumberIsAnError) {
  EXPECT_EQ(alert(9999), 1);
  EXPECT_EQ(lines, Lines{std::string("(9999) ") + msgfile_noDescription + "\n"});
  EXPECT_EQ(alert_errorCount(), 1u);
  EXPECT_TRUE(alert_errorReached());
}

// The default templates leave the position empty. A message has no source
// position, so %f, %l and %c print nothing.
TEST_F(Alert, Templates) {
  alert_setTemplateStyle(1);
  alert(962, "10h", "a", "b");
  alert(1033);
  EXPECT_EQ(lines, (Lines{": : (962) forced data conflict at address 10h between a and b (warning)\n",
                          ": : available command-line options:\n"}));
  setenv("ZKC_ERR_FORMAT", "%f|%l|%c|%n|%s|%a|%q|%", 1);
  setenv("ZKC_MSG_FORMAT", "", 1); // set but empty replaces the default
  restart(true);
  alert(168, "-x");
  alert(1032);
  EXPECT_EQ(lines, (Lines{"|||168|unknown option \"-x\"|romweld|%q|%\n", "\n"}));
}

TEST_F(Alert, WarningThreshold) {
  // Threshold, and how many of 1212 (level 3), 962 (level 9) and a typed
  // level -2 warning are shown and counted.
  for (auto [level, shown] : {std::pair{9, 1u}, {-9, 3u}, {0, 2u}, {3, 2u}, {4, 1u}}) {
    SetUp();
    alert_setWarnLevel(level);
    alert(1212, "t", "AA", "10");
    alert(962, "10h", "a", "b");
    alert_typed(5000, "-2", "low %d", 1);
    EXPECT_EQ(lines.size(), shown) << "level " << level;
    EXPECT_EQ(alert_warningCount(), shown);
  }
}

TEST_F(Alert, DisableList) {
  const std::tuple<const char *, unsigned, bool> cases[] = { // list, message, printed
      {"962", 962, false},
      {"168", 168, true},        // intended: a plain number never hides an error
      {"168:on", 168, true},
      {"168:off", 168, false},
      {"1,168:off", 168, false},
      {"168:off,962", 962, false},
      {"0", 962, false},          // every message and warning
      {"0", 1032, false},
      {"0", 168, true},
      {"0,168:off", 168, true},   // the rest of a list starting with 0 is ignored
      {"", 962, true},
  };
  for (auto [list, num, printed] : cases) {
    SCOPED_TRACE(testing::Message() << list << " " << num);
    SetUp();
    alert_disable(list);
    EXPECT_EQ(num == 962 ? alert(962, "1h", "a", "b") : alert(num, "-x"), printed ? 1 : 0);
    EXPECT_EQ(lines.size(), printed ? 1u : 0u);
    if (num == 168) {
      EXPECT_EQ(alert_errorReached(), printed);
    }
  }
}

// "%m" is the system error text of errno at the call, empty for none.
TEST_F(Alert, TypedKindsAndSystemErrorText) {
  alert_typed(7000, "e", "e%d", 1);
  alert_typed(7001, "4", "w%s", "4");
  alert_typed(7002, "M", "m");
  alert_typed(7003, "zz", "also a message");
  errno = ENOENT;
  alert_typed(5000, "E", "can't open \"%s\": %m", "x.log");
  errno = 0;
  alert_typed(5000, "E", "%m");
  EXPECT_EQ(lines, (Lines{"(7000) e1\n", "(7001) w4 (warning)\n", "m\n", "also a message\n",
                          std::string("(5000) can't open \"x.log\": ") + std::strerror(ENOENT) + "\n",
                          "(5000) \n"}));
  EXPECT_EXIT(alert_typed(7004, "F", "fatal %s", "now"), ::testing::ExitedWithCode(1), "");
}

TEST_F(Alert, TextAndLineCuts) {
  alert(168, std::string(2000, 'a').c_str());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].size(), 511u + 1); // text cut at 511, then the newline
  EXPECT_EQ(lines[0].substr(0, 21), "(168) unknown option ");

  setenv("ZKC_ERR_FORMAT", std::string(9000, 't').c_str(), 1);
  restart(true);
  alert(168, "-x");
  EXPECT_EQ(lines, Lines{std::string(8191, 't')}); // no room left for the newline
}

TEST_F(Alert, FormatterOverflowIsNoted) {
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(alert_format("%s", std::string(5000, 'z').c_str()), std::string(4095, 'z'));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "buffer overflow in vsnprintf");
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(alert_format("%d-%s", 4, "x"), "4-x");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

// Running out of memory ends the run through message 296, never abort, and
// no disable list hides a fatal message; an allocation failure nobody
// catches ends the same way, any other uncaught exception as an internal
// error.
template <class E> void raise() { throw E("x"); }
template <> void raise<std::bad_alloc>() { throw std::bad_alloc(); }
template <class E> void uncaught() noexcept { raise<E>(); }

TEST_F(Alert, OutOfMemoryAndUncaughtExceptionsEndThroughMessages) {
  alert_setSink(nullptr);
  alert_disable("296:off");
  EXPECT_EXIT(alert_outOfMemory(), ::testing::ExitedWithCode(1), "^\\(296\\) out of memory\n$");
  alert_catchOutOfMemory();
  EXPECT_EXIT(uncaught<std::bad_alloc>(), ::testing::ExitedWithCode(1), "\\(296\\) out of memory");
  EXPECT_EXIT(uncaught<std::length_error>(), ::testing::ExitedWithCode(1), "\\(296\\) out of memory");
  EXPECT_EXIT(uncaught<std::runtime_error>(), ::testing::ExitedWithCode(1), "assertion");
  std::set_new_handler(nullptr);
  std::set_terminate(nullptr);
}

} // namespace
