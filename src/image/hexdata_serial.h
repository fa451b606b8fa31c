// Serial store on the memory image. Every byte follows the image's plain
// or forced store rule (hexdata.h); the first refused byte ends the store,
// and the bytes stored before it stay.
#pragma once

#include "image/hexdata.h"
#include "image/serial_spec.h"

// Stores every copy of the record's code. False, with the code recorded, on:
// ENULL (no image or record), ENOSTART, ENOCODE, EOVERLAPS (the code is
// longer than the interval), EBELOWZERO (a copy would lie below address 0
// or past the top of the address space), EBUDGET (the rows the copies would
// add exceed what options may still add, hexdata.h; nothing stored), or
// the first refused byte (ECLASH, EPRESERVED). A forced overwrite of forced
// data records ECLOBBERED and goes on.
[[nodiscard]] bool hex_serial(hexdata *h, const serialspec *s);
