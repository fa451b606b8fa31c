// String record: a character string stored at a fixed address with its
// terminating NUL, either as bytes (each optionally followed by trailing
// code bytes) or packed two 7-bit characters to a 14-bit word. One per
// -STRING / -STRPACK argument. Plain data and accessors: no image, no
// messages; each refusal is recorded in the error list (hex_errno.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct stringspec {
  std::vector<uint8_t> codeBytes; // trailing code after every character
  std::string string;             // the characters, without the NUL
  uint64_t start = 0;             // address of the first stored byte
  bool hasStart = false;
  bool clobber = false;           // '+': may overwrite existing data
  bool packed = false;            // 14-bit words; never with trailing code
  bool preserveData = false;      // mark stored bytes preserved
  bool hasOwner = false;
  const void *owner = nullptr;    // note of every stored byte
};

// Trailing code. Appending to a packed string records ENOCODE and changes
// nothing.
[[nodiscard]] bool stringspec_appendCode(stringspec *s, const uint8_t *bytes, size_t n);
size_t stringspec_countCodeBytes(const stringspec *s);

// A null text records ENULL and leaves the string as it was.
[[nodiscard]] bool stringspec_setString(stringspec *s, const char *text);
const std::string &stringspec_getString(const stringspec *s);

// stringspec_getStart records ENOSTART (and returns 0) when none was set.
void stringspec_setStart(stringspec *s, uint64_t start);
bool stringspec_hasStart(const stringspec *s);
uint64_t stringspec_getStart(const stringspec *s);

void stringspec_setClobber(stringspec *s, bool on);
bool stringspec_canClobber(const stringspec *s);
// Packing a string that has trailing code records ENOCODE and changes nothing.
[[nodiscard]] bool stringspec_setPacked(stringspec *s, bool on);
bool stringspec_isPacked(const stringspec *s);
void stringspec_setPreserveData(stringspec *s, bool on);
bool stringspec_willPreserveData(const stringspec *s);
void stringspec_setOwner(stringspec *s, const void *owner);
bool stringspec_hasOwner(const stringspec *s);
const void *stringspec_getOwner(const stringspec *s);

// Bytes stored for a string of L characters: (L + 1) × (trailing code + 1),
// or packed L + 1 rounded up to even.
uint64_t stringspec_getLength(const stringspec *s);
// Whether stored byte `offset` (from the start) is trailing code rather
// than a character; never for a packed string.
bool stringspec_isTrailingCell(const stringspec *s, uint64_t offset);

// The stored bytes: every character and the NUL, each followed by the
// trailing code; or, packed, characters i and i + 1 as the 14-bit word
// (c[i] & 0x7F) << 7 | (c[i + 1] & 0x7F), low byte first, the NUL sharing
// the last word or filling one of its own.
std::vector<uint8_t> stringspec_bytes(const stringspec *s);
