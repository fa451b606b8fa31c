// String store on the memory image: a string record's bytes
// (stringspec_bytes) stored as one copy by the serial store's rules.
#pragma once

#include "image/hexdata.h"
#include "image/string_spec.h"

// ENULL, ENOSTART, and the refusals of hex_serial (hexdata_serial.h).
[[nodiscard]] bool hex_string(hexdata *h, const stringspec *s);
