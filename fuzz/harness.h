// Shared set-up of the fuzz targets: messages go nowhere, and a fatal
// message or the error limit ends the input instead of the process, so one
// process can run millions of inputs. An assertion still ends the process:
// that is a finding.
#pragma once

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "common/alert.h"

struct fuzz_exit {};

inline void fuzz_setup(alert_sink sink = [](const char *) {}) {
  static bool done = false;
  if (done)
    return;
  done = true;
  alert_setSink(sink);
  alert_setExitForTests([](int) { throw fuzz_exit{}; });
  set_maxerrors(UINT_MAX);
}

// The message service as at the start of a run, for targets that judge a
// whole run by its messages and error count.
inline void fuzz_freshRun(alert_sink sink) {
  alert_resetForTests();
  alert_setSink(sink);
  alert_setExitForTests([](int) { throw fuzz_exit{}; });
}

// The input as lines: one argument per line, empty lines dropped.
inline std::vector<std::string> fuzz_lines(const uint8_t *data, size_t size) {
  std::vector<std::string> out;
  std::string cur;
  for (size_t i = 0; i < size; ++i) {
    const char c = char(data[i]);
    if (c == '\n') {
      if (!cur.empty())
        out.push_back(cur);
      cur.clear();
    } else if (c != '\0') {
      cur += c;
    }
  }
  if (!cur.empty())
    out.push_back(cur);
  return out;
}
