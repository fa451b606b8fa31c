// S-record reader. Each record is decoded in place from the lines the
// shared block reader hands over (hextext.h): one table lookup per
// hexadecimal digit, one placed piece per data record (place.h). Blank
// lines are passed over; a record after the termination record, whatever
// its type, is out of place: the termination record ends the file. A file
// may go without one (common tools write none for an image without a start
// address); a stream without any record is no S-record file (ENOEOF, as
// for an Intel HEX stream without its end-of-file record).
#include "formats/srec.h"

#include "formats/hextext.h"
#include "formats/place.h"
#include "image/hex_errno.h"

namespace {

using namespace hextext;

// The longest line that can hold a record: "S", the type, the count and
// the 255 bytes it counts.
constexpr size_t MAX_RECORD_CHARS = 2 + 2 * 256;

// The address bytes of each record type; 0 for S4, which has no use.
// Count (S5, S6) and termination (S7, S8, S9) records hold nothing else.
constexpr uint8_t ADDRESS_BYTES[10] = {2, 2, 3, 4, 0, 2, 3, 4, 3, 2};

struct reader : readState {
  uint64_t dataRecords = 0; // S1, S2 and S3 records read so far
  bool terminated = false;  // an S7, S8 or S9 record was read

  bool onLine(const char *p, size_t n);
  bool onOverlong(const char *head, bool stray);
  bool onRecord(unsigned type, const uint8_t *b);
};

// Addresses are 32-bit: a record that runs past 0xFFFFFFFF goes on at 0.
// An S1 or S2 record that runs past its own address width goes on above
// it. False when reading must stop.
bool placeData(reader &r, uint32_t addr, const uint8_t *d, uint32_t n) {
  if (n == 0)
    return true;
  const uint64_t room = 0x100000000ull - addr;
  const uint32_t n1 = n <= room ? n : static_cast<uint32_t>(room);
  if (!r.place(addr, d, n1))
    return false;
  return n1 == n || r.place(0, d + n1, n - n1);
}

// Decodes a trimmed, non-blank line into its bytes (the count first).
// Returns the record type, or -1 with the line's problem listed when the
// line holds no well-formed record of a type that has a use.
int decodeLine(reader &r, const char *p, size_t n, uint8_t *b) {
  const unsigned type = n >= 2 ? static_cast<unsigned>(p[1] - '0') : 10;
  if (p[0] != 'S' || type > 9 || ADDRESS_BYTES[type] == 0) {
    r.problem(EREADHEX);
    return -1;
  }
  switch (decodePairs(p + 2, n - 2, MAX_RECORD_CHARS - 2, b)) {
  case PAIRS_OK:
    break;
  case PAIRS_STRAY:
    r.problem(EBADCHAR);
    return -1;
  case PAIRS_BROKEN: // an odd digit, too long, or white space inside
    r.problem(EREADHEX);
    return -1;
  }
  // The count byte counts the bytes after it: the address, the data and
  // the checksum.
  const size_t bytes = (n - 2) / 2;
  const unsigned least = ADDRESS_BYTES[type] + 1u;
  if (bytes == 0 || b[0] + size_t(1) != bytes || b[0] < least || (type >= 5 && b[0] != least)) {
    r.problem(EREADHEX);
    return -1;
  }
  return static_cast<int>(type);
}

// Judges one physical line (without its line end). False stops reading.
bool reader::onLine(const char *p, size_t n) {
  if (!nextLine())
    return false;
  n = trimEnd(p, n);
  if (n == 0)
    return true;
  uint8_t b[MAX_RECORD_CHARS / 2];
  const int type = decodeLine(*this, p, n, b);
  if (type < 0)
    return true;
  // The checksum is the ones' complement of the sum of the bytes before
  // it, so all of them with it add up to 0xFF. A record that fails it is
  // still taken; the failure reaches the caller through the error list and
  // the result.
  unsigned sum = 0;
  for (uint32_t i = 0; i <= b[0]; ++i)
    sum += b[i];
  if ((sum & 0xFF) != 0xFF)
    badChecksum();
  complete = true;
  if (terminated) {
    problem(EREADHEX);
    return true;
  }
  return onRecord(static_cast<unsigned>(type), b);
}

// A well-formed record: b holds the count, the address, the data and the
// checksum. False stops reading.
bool reader::onRecord(unsigned type, const uint8_t *b) {
  const unsigned width = ADDRESS_BYTES[type];
  uint32_t addr = 0;
  for (unsigned i = 1; i <= width; ++i)
    addr = addr << 8 | b[i];
  switch (type) {
  case 0: // the header's text has no place in the image
    return true;
  case 1:
  case 2:
  case 3:
    ++dataRecords;
    return placeData(*this, addr, b + 1 + width, b[0] - width - 1u);
  case 5:
  case 6:
    if (addr != dataRecords) {
      hex_setCountError(line, addr, dataRecords);
      failed();
    }
    return true;
  default:
    // S7, S8, S9: the start address and the end. A file without a start
    // address still needs its termination record, which then holds 0 (the
    // writer does the same), so 0 stands for none: converting to S-records
    // and back adds no start address record.
    x->EIP = addr;
    x->hasEIP = addr != 0;
    terminated = true;
    return true;
  }
}

// A line too long to hold any record.
bool reader::onOverlong(const char *head, bool stray) {
  if (!nextLine())
    return false;
  const unsigned type = static_cast<unsigned>(head[1] - '0');
  const bool typed = head[0] == 'S' && type <= 9 && ADDRESS_BYTES[type] != 0;
  problem(typed && stray ? EBADCHAR : EREADHEX);
  return true;
}

} // namespace

bool srec_readToMerge(ihex *x, FILE *in, const ihex_readspec *spec, const hexdata *dst,
                      ihex_extent *placed) {
  return readStream<MAX_RECORD_CHARS, reader>(x, in, spec, dst, placed);
}
