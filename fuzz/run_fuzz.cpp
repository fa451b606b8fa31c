// libFuzzer target for a whole run: a small bundled image plus a fuzzed
// argument list (one argument per line) go through the pipeline to the
// writer. Input files always name the bundled image and the output and the
// log always go to /dev/null, so no input can read or write other files.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>

#include "fuzz/harness.h"
#include "romweld/args.h"

namespace {

const char kImage[] = ":10000000000102030405060708090A0B0C0D0E0F78\n"
                      ":10010000101112131415161718191A1B1C1D1E1F77\n"
                      ":0200000400F00A\n"
                      ":04000000DEADBEEFC4\n"
                      ":00000001FF\n";

const std::string &imagePath() {
  static std::string path;
  if (path.empty()) {
    char tmpl[] = "/tmp/romweld-fuzz-XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0)
      std::abort();
    FILE *f = fdopen(fd, "w");
    std::fputs(kImage, f);
    std::fclose(f);
    path = tmpl;
  }
  return path;
}

bool startsWith(const std::string &s, const char *word) {
  const size_t skip = !s.empty() && s[0] == '+';
  return strncasecmp(s.c_str() + skip, word, std::strlen(word)) == 0;
}

// A checksum feeds every address of its range, held or not, so its time
// grows with the range, not with the image: a range of gigabytes is slow by
// design, not a fault. Ranges are kept to 16 MiB here.
bool hugeChecksum(const std::string &arg) {
  if (!startsWith(arg, "-ck="))
    return false;
  const char *p = arg.c_str() + arg.find('=') + 1;
  char *end = nullptr;
  const unsigned long long lo = std::strtoull(p, &end, 16);
  if (*end != '-')
    return false;
  const unsigned long long hi = std::strtoull(end + 1, nullptr, 16);
  return hi > lo && hi - lo > 0xFFFFFF;
}

// The argument with every file it could name replaced by a harmless one.
std::string tame(const std::string &arg) {
  if (hugeChecksum(arg))
    return "-SIZE";
  if (startsWith(arg, "-o"))
    return "-O/dev/null";
  if (startsWith(arg, "-logfile"))
    return "-LOGFILE=/dev/null";
  const size_t skip = !arg.empty() && arg[0] == '+';
  if (arg.size() <= skip || arg[skip] != '-') {
    const size_t comma = arg.rfind(',');
    return (comma == std::string::npos ? arg.substr(0, skip) : arg.substr(0, comma + 1)) +
           imagePath();
  }
  return arg;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz_setup();
  try {
    bool ok = args_add(imagePath()) && args_add("-O/dev/null");
    for (const std::string &arg : fuzz_lines(data, size))
      ok = ok && args_add(tame(arg));
    if (ok)
      process(1);
  } catch (const fuzz_exit &) {
  }
  args_reset();
  return 0;
}
