#include "romweld/usage.h"

#include <cstdio>
#include <string>

#include "common/alert.h"

namespace {
// The table texts are templates, not printf formats: only "%s" is replaced,
// so no table text can ever be misread as a conversion.
std::string expand(const char *tmpl, const char *name) {
  std::string out;
  for (const char *p = tmpl; *p; ++p) {
    if (p[0] == '%' && p[1] == 's') {
      out += name;
      ++p;
    } else {
      out += *p;
    }
  }
  return out;
}
} // namespace

void usage_printBlock(const char *name, const char *help, const char *usage,
                      const char *example) {
  std::printf(" %s : %s\n  USAGE: %s\n  Example: %s\n", name, help,
              expand(usage, name).c_str(), expand(example, name).c_str());
}

void usage_printLine(const char *name, const char *help) {
  std::printf("  %-*s : %s\n", 9, name, help);
}

bool usage_flushStdout() {
  if (std::fflush(stdout) == 0 && !std::ferror(stdout))
    return true;
  // Reported once: later checks see only what failed after this one.
  std::clearerr(stdout);
  alert<413>("stdout");
  return false;
}
