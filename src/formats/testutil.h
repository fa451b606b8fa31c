// Test-only helpers of the codecs' tests: Intel HEX text built record by
// record, and text read and written through real streams, as the tool does.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "formats/ihex.h"
#include "image/testutil.h"

#define EOFREC ":00000001FF\n"

namespace testutil {

using Hex = std::unique_ptr<ihex, void (*)(ihex *)>;
inline Hex newHex() { return Hex(ihex_create(), ihex_destroy); }

// One Intel HEX record line with its checksum.
inline std::string record(unsigned type, unsigned addr, const std::vector<uint8_t> &d) {
  char tmp[16];
  unsigned sum = unsigned(d.size()) + (addr >> 8) + (addr & 0xFF) + type;
  std::snprintf(tmp, sizeof tmp, ":%02X%04X%02X", unsigned(d.size()), addr & 0xFFFF, type);
  std::string s = tmp;
  for (uint8_t b : d) {
    std::snprintf(tmp, sizeof tmp, "%02X", b);
    s += tmp;
    sum += b;
  }
  std::snprintf(tmp, sizeof tmp, "%02X\n", -sum & 0xFF);
  return s + tmp;
}

// A stream over text, as the tool reads its input files.
inline FILE *openText(const std::string &text) {
  return text.empty() ? std::tmpfile() : fmemopen(const_cast<char *>(text.data()), text.size(), "r");
}

// What write(stream) writes; *result gets what it returns.
template <class Write> std::string written(Write write, int *result = nullptr) {
  char *p = nullptr;
  size_t n = 0;
  FILE *f = open_memstream(&p, &n);
  const int r = write(f);
  std::fclose(f);
  if (result)
    *result = r;
  std::string s(p, n);
  std::free(p);
  return s;
}

// Reads text into x; with `placed`, for a merge into `into`.
inline bool readText(ihex *x, const std::string &text, const ihex_readspec *spec = nullptr,
                     const hexdata *into = nullptr, ihex_extent *placed = nullptr) {
  FILE *f = openText(text);
  const bool ok = placed ? ihex_readToMerge(x, f, spec, into, placed) : ihex_readSpecd(x, f, spec);
  std::fclose(f);
  return ok;
}

inline std::string writeText(const ihex *x, unsigned code, int *result = nullptr) {
  return written([&](FILE *f) { return ihex_write(x, f, code); }, result);
}

} // namespace testutil
