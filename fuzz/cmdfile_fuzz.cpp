// libFuzzer target for command files: the input is a command file's text,
// split into words and unescaped as the argument list builder does.
#include <cstdint>
#include <cstdlib>

#include "cmdline.h"
#include "fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup();
  const std::string text(reinterpret_cast<const char *>(data), size);
  for (const std::string &w : cmdline_splitWords(text)) {
    if (w.size() > CMDLINE_MAX_WORD)
      std::abort(); // words are cut at the limit
    if (cmdline_unescape(w).size() > w.size())
      std::abort(); // resolving escapes only ever shortens a word
  }
  return 0;
}
