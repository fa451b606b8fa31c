// libFuzzer target for the argument framework: every line of the input is
// offered to the parsers as one argument, so every option parser and its
// value grammar is reached. Nothing is processed.
#include <cstdint>

#include "fuzz/harness.h"
#include "romweld/args.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup();
  try {
    for (const std::string &arg : fuzz_lines(data, size))
      args_add(arg);
  } catch (const fuzz_exit &) {
  }
  args_reset();
  return 0;
}
