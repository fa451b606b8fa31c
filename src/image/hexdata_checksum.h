// Checksum engine: walks a ckspec's range of the memory image as a byte
// stream (optional in-word reversal and byte skipping; undefined bytes are
// fed as 0, or left out by the additive sums), runs the record's algorithm,
// turns the value into result bytes (with trailing codes) and stores them.
// The cost follows the rows that hold data, not the length of the range:
// untouched space is a run of zeros that each algorithm takes at once,
// except a hash, which must still be fed every zero.
//
// Undefined bytes are reported as EUNDEFADDR records (address, whether the
// byte was left out, the value assumed for it). A range may hold millions of
// them, so each routine records only the first one it meets and then, when
// they differ from it, the lowest and the highest: what the option reports.
// They are recorded during the walk, before anything is stored.
#pragma once

#include <cstdint>
#include <vector>

#include "image/ck_spec.h"
#include "image/hexdata.h"

// Computes s over h and stores the result at s's destination, when it has
// one; the W result bytes (stored order, no trailing codes) go to resultOut
// when given. False with a recorded code: ENULL (no image or record, or
// neither a destination nor resultOut), ENODATA (no range), EBADSKIP,
// EUNKNOWNTYPE, EBADPOLY (a CRC without polynomial), EARG (a SHA range of
// more than 4 GiB), EBELOWZERO (the result would run past the top of the
// address space) and EBUDGET (its rows would exceed what options may still
// add), these three before any work, ECLASH (a different byte is there and
// s may not clobber), EPRESERVED. A forced store over forced data records
// ECLOBBERED and fails the call too, after storing. Bytes stored before a
// failure stay.
[[nodiscard]] bool hex_checksum(hexdata *h, const ckspec *s, std::vector<uint8_t> *resultOut);

// The routines behind hex_checksum, for a record that passed its checks.
// Numeric results are full 64-bit values; the result keeps their low W bytes.
uint64_t checksumAdditive(const hexdata *h, const ckspec *s);
uint64_t checksumCRC(const hexdata *h, const ckspec *s);
uint64_t checksumRefCRC(const hexdata *h, const ckspec *s);
uint64_t checksumFletcher8(const hexdata *h, const ckspec *s);
uint64_t checksumFletcher16(const hexdata *h, const ckspec *s);
void checksumSHA1(const hexdata *h, const ckspec *s, uint8_t digest[20]);
void checksumSHA256(const hexdata *h, const ckspec *s, uint8_t digest[32]);

// data's low nBits bits in reverse order (bit i to bit nBits-1-i); higher
// bits are dropped. 0 < nBits <= 64.
uint64_t reflectBits(uint64_t data, unsigned nBits);
