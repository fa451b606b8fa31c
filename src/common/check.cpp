#include "common/check.h"

#include <cstdio>
#include <cstdlib>

void check_failed(const char *expr, const char *file, unsigned line) {
  std::fprintf(stderr, "assertion \"%s\" failed: file \"%s\", line %u\n", expr, file, line);
  std::fflush(stderr);
  std::exit(1);
}
