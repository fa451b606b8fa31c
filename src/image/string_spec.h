// String record: a character string stored at a fixed address with its
// terminating NUL, either as bytes (each optionally followed by trailing
// code bytes) or packed two 7-bit characters to a 14-bit word. One per
// -STRING / -STRPACK argument. A record in the shape of record.h: no image,
// no messages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "image/record.h"

struct stringspec {
  std::vector<uint8_t> codeBytes; // trailing code after every character
  std::string string;             // the characters, without the NUL
  uint64_t start = 0;             // address of the first stored byte
  bool hasStart = false;
  bool packed = false;            // 14-bit words; never with trailing code
  store_policy policy;
};

// ENOCODE for trailing code on a packed string, and for packing a string
// that has trailing code.
[[nodiscard]] bool stringspec_appendCode(stringspec *s, const uint8_t *bytes, size_t n);
[[nodiscard]] bool stringspec_setPacked(stringspec *s, bool on);
[[nodiscard]] bool stringspec_setString(stringspec *s, const char *text); // ENULL for no text
bool stringspec_setStart(stringspec *s, uint64_t start);

// Bytes stored for a string of L characters: (L + 1) × (trailing code + 1),
// or packed L + 1 rounded up to even.
uint64_t stringspec_getLength(const stringspec *s);
// Where the trailing codes sit among the stored bytes: after every
// character; none for a packed string.
trail_layout stringspec_trailLayout(const stringspec *s);

// The stored bytes: every character and the NUL, each followed by the
// trailing code; or, packed, characters i and i + 1 as the 14-bit word
// (c[i] & 0x7F) << 7 | (c[i + 1] & 0x7F), low byte first, the NUL sharing
// the last word or filling one of its own.
std::vector<uint8_t> stringspec_bytes(const stringspec *s);
