// Placing what a reader decodes, shared by every codec. A reader turns its
// file into pieces (a file address and the bytes from there on) and hands
// each piece to a place_sink, which applies the read settings: the range
// crops by the file's own addresses, the offset shifts what is left, and
// the bytes go into the stream's own image by the plain or forced store
// rule, preserved and noted as the settings say. A sink set up for a plain
// merge into another image leaves out the bytes that merge would not change
// (an equal byte, present and not preserved) and remembers their addresses,
// so a file overlapping the image it joins costs memory only for what it
// adds. Refusals are recorded in the error list; nothing prints.
#pragma once

#include <cstdint>
#include <memory>

#include <cstdio>

#include "image/hex_errno.h"
#include "image/hexdata.h"
#include "image/hexobject.h"
#include "image/record.h"

// The read settings of one input file, in the shape of record.h: the range
// by the file's own addresses, the offset added after cropping, and the
// store policy ('+' forces, preserve marks, the owner notes every byte).
struct ihex_readspec {
  addr_range range;
  int32_t offset = 0;
  store_policy policy;
};

// EBADADDR for a reversed range; EBELOWZERO when the offset would move the
// range's start below address 0.
[[nodiscard]] bool ihex_readspec_setStart(ihex_readspec *s, uint64_t value);
[[nodiscard]] bool ihex_readspec_setEnd(ihex_readspec *s, uint64_t value);
[[nodiscard]] bool ihex_readspec_setOffset(ihex_readspec *s, int32_t value);

// The addresses a stream placed: how many distinct ones, the lowest and the
// highest (all 0 when none).
struct ihex_extent {
  uint64_t count = 0;
  uint64_t lo = 0;
  uint64_t hi = 0;
};

struct place_dropped; // the left-out addresses (place.cpp)

struct place_sink {
  // img: the stream's own image; spec: null for no range, offset or note;
  // mergeInto: the image the stream is about to be merged into, or null.
  place_sink(hexdata *img, const ihex_readspec *spec, const hexdata *mergeInto);
  ~place_sink();

  hexdata *img;
  const ihex_readspec *spec;
  std::unique_ptr<place_dropped> drop; // null: every byte is kept
  // The owner's note goes on one stretch of consecutive pieces at a time.
  uint64_t noteLo = 0, noteHi = 0;
  bool notePending = false;
};

enum place_result {
  PLACE_OK,      // every byte of the piece was placed or cropped away
  PLACE_REFUSED, // some byte was refused (ECLASH, EPRESERVED, ...): the stream fails
  PLACE_STOP,    // EBELOWZERO: the offset puts data below address 0; stop reading
};
place_result place_piece(place_sink *s, uint64_t fileAddr, const uint8_t *d, uint64_t n);

// The image rows place_piece would fill with the piece fileAddr..+n-1
// under these settings (the range crops, the offset shifts): what a reader
// weighs against HEX_ROW_BUDGET before it stores anything.
uint64_t place_rows(const ihex_readspec *settings, uint64_t fileAddr, uint64_t n);

// Ends the placing (the last notes go on); a reader calls it once the
// stream is read, before place_extent.
void place_finish(place_sink *s);

// The addresses the stream placed: the image's extent widened by the bytes
// left out.
ihex_extent place_extent(const place_sink *s);

// The frame of every reader: ENULL for a null hex object or stream; else
// x is emptied (image and start addresses), `read` decodes the stream into
// the sink it is given, the placing ends, and *placed (when not null) gets
// the extent. Returns what `read` returned.
template <class Read>
bool place_read(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *mergeInto,
                ihex_extent *placed, Read read) {
  if (!x || !in) {
    hex_setError(ENULL);
    return false;
  }
  ihex_clearForRead(x);
  place_sink sink(x->image, spec, mergeInto);
  const bool ok = read(sink);
  place_finish(&sink);
  if (placed)
    *placed = place_extent(&sink);
  return ok;
}
