#include "common/msgconv.h"

#include <string>

#include "common/msgs_en.h"

namespace {

// What the checked entry and the drain tables accept, decided at compile
// time: each line is one call that must compile, or must be refused.
static_assert(msgconv_fits<unsigned long>("address 0x%lX"));
static_assert(!msgconv_fits<unsigned long>("address 0x%X"), "a 64-bit address for %X");
static_assert(!msgconv_fits<unsigned>("address 0x%lX"));
static_assert(msgconv_fits<const char *, char *>("%s and %s"));
static_assert(!msgconv_fits<std::string>("%s"), "an object is no text");
static_assert(!msgconv_fits<int>("%s"));
static_assert(!msgconv_fits<int>("%u"), "signedness counts");
static_assert(!msgconv_fits<unsigned>("%d"));
static_assert(msgconv_fits<unsigned char, unsigned short>("%u %X"), "promoted small unsigned");
static_assert(msgconv_fits<char>("%c"));
static_assert(!msgconv_fits<bool>("%d"));
static_assert(msgconv_fits<int, const char *>("%-*s"), "a '*' width takes an int");
static_assert(msgconv_fits<float, long double>("%f %Lg"));
static_assert(msgconv_fits<>("100%% done: %m"));
static_assert(!msgconv_fits<const char *>("%s %s"), "too few arguments");
static_assert(!msgconv_fits<const char *, const char *>("%s"), "too many arguments");

// A number the built-in file does not describe has no text to check against.
static_assert(msgs_enText(6).empty() && msgs_enText(0).empty());

} // namespace
