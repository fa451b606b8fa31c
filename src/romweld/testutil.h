// Test-only helpers shared by the option layer's tests: the messages an
// option draws, and the run state every test starts from.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/alert.h"
#include "image/hex_errno.h"
#include "romweld/settings.h"

namespace optest {

// Each message without its line end: whole, and as its description (what
// follows " argument : ", or else the whole line).
inline std::vector<std::string> whole, lines;
inline void collect(const char *line) {
  std::string l(line);
  l.erase(l.find_last_not_of('\n') + 1);
  whole.push_back(l);
  const size_t at = l.find(" argument : ");
  lines.push_back(at == std::string::npos ? l : l.substr(at + 12));
}

// A fresh message service writing into whole and lines, no error records,
// and the settings of a run that has not started.
struct OptionTest : testing::Test {
  void SetUp() override {
    alert_resetForTests();
    alert_setSink(collect);
    whole.clear();
    lines.clear();
    hex_clearErrors();
    romweld_reset();
  }
  void TearDown() override {
    alert_setSink(nullptr);
    romweld_reset();
    hex_clearErrors();
  }
};

} // namespace optest
