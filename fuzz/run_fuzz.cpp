// libFuzzer target for a whole run: a small bundled image plus a fuzzed
// argument list (one argument per line) go through the pipeline to the
// writer. Input files always name the bundled image and the output and the
// log always go to two files of the target's own, so no input can read or
// write other files. Every run is held to the tool's promise: a run that
// fails says why (at least one message) and replaces no file.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <climits>
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

const std::string &workDir() {
  static std::string dir;
  if (dir.empty()) {
    char tmpl[] = "/tmp/romweld-fuzz-run-XXXXXX";
    if (!mkdtemp(tmpl))
      std::abort();
    dir = tmpl;
    std::atexit([] {
      std::remove((dir + "/out.hex").c_str());
      std::remove((dir + "/out.log").c_str());
      std::remove(dir.c_str());
    });
  }
  return dir;
}
std::string outPath() { return workDir() + "/out.hex"; }
std::string logPath() { return workDir() + "/out.log"; }

const char kOld[] = "before the run\n";

void writeOld(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "w");
  if (!f || std::fputs(kOld, f) < 0 || std::fclose(f) != 0)
    std::abort();
}

bool stillOld(const std::string &path) {
  char buf[sizeof kOld + 1] = {};
  FILE *f = std::fopen(path.c_str(), "r");
  if (!f)
    return false;
  const size_t n = std::fread(buf, 1, sizeof buf, f);
  std::fclose(f);
  return n == sizeof kOld - 1 && std::memcmp(buf, kOld, n) == 0;
}

unsigned g_messages = 0;

bool startsWith(const std::string &s, const char *word) {
  const size_t skip = !s.empty() && s[0] == '+';
  return strncasecmp(s.c_str() + skip, word, std::strlen(word)) == 0;
}

// A hash takes every address of its range, held or not, so its time grows
// with the range (up to 4 GiB), not with the image: slow by design, not a
// fault. Hash ranges are kept to 16 MiB here.
bool hugeChecksum(const std::string &arg) {
  if (!startsWith(arg, "-ck="))
    return false;
  std::string lower = arg;
  for (char &c : lower)
    c = char(std::tolower(static_cast<unsigned char>(c)));
  if (lower.find("g10") == std::string::npos && lower.find("g11") == std::string::npos)
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
    return "-O" + outPath();
  if (startsWith(arg, "-logfile"))
    return "-LOGFILE=" + logPath();
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
  fuzz_freshRun([](const char *) { ++g_messages; });
  set_maxerrors(UINT_MAX);
  g_messages = 0;
  writeOld(outPath());
  writeOld(logPath());
  bool ok = false;
  try {
    ok = args_add(imagePath()) && args_add("-O" + outPath());
    for (const std::string &arg : fuzz_lines(data, size))
      ok = ok && args_add(tame(arg));
    ok = ok && process(1) && !alert_errorReached();
  } catch (const fuzz_exit &) {
    ok = false;
  }
  args_reset();
  // The run's exit status would be 1: it must have said why, and left
  // both files as they were.
  if (!ok && (g_messages == 0 || !stillOld(outPath()) || !stillOld(logPath())))
    std::abort();
  return 0;
}
