// Searching the image for the code of a findspec. The search only reads:
// it collects every match before the caller changes anything.
#pragma once

#include "image/find_spec.h"
#include "image/hexdata.h"

// Fills *out (emptied first) with the matches of s in h: candidates start at
// L + (L mod alignment), L being the range's start raised to the image's
// lowest address, and step by the alignment; every byte of a match lies
// below the limit U (with an end: the lower of the end and the image's
// highest address, both left out; without: just past the highest address);
// absent bytes never match; with s->overlap off a match sharing a byte with
// the previous one is skipped. An empty image has no matches. The matches
// are runs and keep no bytes: a caller reads a match's bytes from the image
// when it takes the match up. Changes to earlier matches alter them only
// where a delete took bytes the match shares with the match before it,
// whose bytes hold all of those.
// False with ENULL for a null argument, ENOCODE for a code without bytes.
[[nodiscard]] bool hex_find(const hexdata *h, const findspec *s, findmatches *out);
