// Test-only helpers shared by the image library's tests: owners to use as
// notes, one canonical text for an image and one for the error list.
#pragma once

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "image/hex_errno.h"
#include "image/hexdata.h"

namespace testutil {

// Only the identity of an owner matters.
inline int ownerA, ownerB, ownerC;

inline std::string hexText(uint64_t v) {
  char tmp[20];
  std::snprintf(tmp, sizeof tmp, "%" PRIX64, v);
  return tmp;
}

// Owners other than these three by their address.
inline std::string noteName(const void *n) {
  return !n ? "-" : n == &ownerA ? "A" : n == &ownerB ? "B" : n == &ownerC ? "C" : std::string("?").append(hexText(uintptr_t(n)));
}

// One slot: its data ("-" first when absent), R when preserved, F when
// forced, then "/owner" when it has a note. "5A", "-00F/C", "33R/A".
inline std::string slotText(uint8_t data, uint8_t attr, const void *note) {
  char tmp[24];
  std::snprintf(tmp, sizeof tmp, "%s%02X%s%s", (attr & HEX_PRESENT) ? "" : "-", data,
                (attr & HEX_PRESERVED) ? "R" : "", (attr & HEX_FORCED) ? "F" : "");
  std::string s = tmp;
  if (note)
    s.append("/").append(noteName(note));
  return s;
}

inline std::string slotText(const hexdata *h, uint64_t a) {
  const hex_row *r = hex_getRow(h, hex_rowOf(a));
  return slotText(r ? r->data[a & 0xFF] : 0, r ? hex_rowAttr(r, a & 0xFF) : 0, hex_getNote(h, a));
}

inline void addToken(std::string &out, const std::string &token) {
  if (!out.empty())
    out += ' ';
  out += token;
}

// Bytes as hexadecimal digits, in the order given ("0159").
inline std::string hexBytes(const std::vector<uint8_t> &v) {
  std::string s;
  for (uint8_t b : v) {
    s += "0123456789ABCDEF"[b >> 4];
    s += "0123456789ABCDEF"[b & 15];
  }
  return s;
}

inline void addSlot(std::string &out, uint64_t a, uint8_t data, uint8_t attr, const void *note) {
  if (attr || note)
    addToken(out, hexText(a) + "=" + slotText(data, attr, note));
}

inline void addBounds(std::string &out, uint64_t count, uint64_t lo, uint64_t hi) {
  char tmp[64];
  std::snprintf(tmp, sizeof tmp, count ? "count %" PRIu64 " %" PRIX64 "-%" PRIX64 : "count %" PRIu64,
                count, lo, hi);
  addToken(out, tmp);
}

// Every address of lo..hi that has attribute bits or a note, then the
// count and bounds: "5000=03 6000=-00F/C count 1 5000-5000".
inline std::string dump(const hexdata *h, uint64_t lo, uint64_t hi) {
  std::string out;
  for (uint64_t a = lo; a <= hi; ++a) {
    const hex_row *r = hex_getRow(h, hex_rowOf(a));
    addSlot(out, a, r ? r->data[a & 0xFF] : 0, r ? hex_rowAttr(r, a & 0xFF) : 0, hex_getNote(h, a));
  }
  const uint64_t count = hex_getByteCount(h);
  addBounds(out, count, count ? hex_getLoAddr(h) : 0, count ? hex_getHiAddr(h) : 0);
  return out;
}
inline std::string bounds(const hexdata *h) { return dump(h, 1, 0); }

// Every present byte wherever it lies: "10=01 11=02 FFFFFFFF=AA".
inline std::string present(const hexdata *h) {
  std::string out;
  for (uint64_t a = 0, next = 0; hex_getByteCount(h) && hex_nextPresent(h, next, &a); next = a + 1) {
    addToken(out, hexText(a) + "=" + slotText(h, a));
    if (a == UINT64_MAX)
      break;
  }
  return out;
}

// One record: its name, then only the fields it carries.
// "ECLASH@1234", "EUNKNOWNREC(1,6)", "ECLOBBERED@10/A", "EUNDEFADDR@20{1}".
inline void addError(std::string &out, const hex_error &e) {
  char t[96];
  int n = std::snprintf(t, sizeof t, "%s", e.name ? e.name : "(null)");
  if (e.addr)
    n += std::snprintf(t + n, sizeof t - n, "@%" PRIX64, e.addr);
  if (e.num || e.num2)
    n += std::snprintf(t + n, sizeof t - n, e.num2 ? "(%u,%u)" : "(%u)", e.num, e.num2);
  if (e.note)
    n += std::snprintf(t + n, sizeof t - n, "/%s", noteName(e.note).c_str());
  if (e.flag || e.ch)
    std::snprintf(t + n, sizeof t - n, e.ch ? "{%u,%c}" : "{%u}", e.flag, e.ch);
  addToken(out, t);
}

inline std::string errors() {
  std::string out;
  for (uint32_t i = 0; i < hex_errorCount(); ++i)
    addError(out, hex_errorAt(i));
  return out;
}

using Image = std::unique_ptr<hexdata, void (*)(hexdata *)>;
inline Image newImage() { return Image(hex_create(), hex_destroy); }
} // namespace testutil
