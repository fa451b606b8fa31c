#include "romweld/log.h"

#include <cstdarg>
#include <cstdio>

#include "romweld/settings.h"

bool log_isOpen() { return romweld.log.fp != nullptr; }

void log_print(const char *fmt, ...) {
  if (!romweld.log.fp)
    return;
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(romweld.log.fp, fmt, ap);
  va_end(ap);
}

void log_findSection() {
  if (!log_isOpen() || romweld.log.findSection)
    return;
  log_print("### OP Code find / replace / delete results ###\n");
  romweld.log.findSection = true;
}
