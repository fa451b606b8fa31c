// Input-file arguments: "[+][r<start>-<end>][s<offset>],path" or a plain
// path. Each file is read into a hex object of its own; a file with any
// reading error contributes nothing (no data, no start address), so the
// output never holds part of a broken file. The first good file becomes the
// run's hex object and later ones are merged into it in command-line order.
// Start address records are reconciled across files through the run-wide
// settings: state 1 takes the first value, a disagreement discards them all
// (state 0), and a --SLA / --SSA option (state 2) overrides every file.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <span>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/alert.h"
#include "formats/bin.h"
#include "formats/elffile.h"
#include "formats/ihex.h"
#include "formats/srec.h"
#include "image/hex_errno.h"
#include "romweld/args.h"
#include "romweld/drain.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

namespace {

// The image's refusals read the same whether one file gives an address two
// values or a later file meets the data of the run's image.
constexpr drain_row kClash = drain_error(
    ECLASH, "data in \"%s\" conflicts with existing data at address 0x%lX", DF_PATH, DF_ADDR);
constexpr drain_row kPreserved = drain_error(
    EPRESERVED, "cannot merge data in \"%s\" at address 0x%lX because existing is preserved",
    DF_PATH, DF_ADDR);
constexpr drain_row kClobbered = drain_message<962, DF_ADDR_H, DF_OWNER, DF_ARG>(ECLOBBERED);

// Reading one file. A checksum failure is the only problem that still lets
// the file be merged, and a forced file may overwrite its own bytes.
constexpr drain_row kReadRows[] = {
    drain_error(EIO, "problem reading input hex-file (%s)", DF_PATH),
    drain_warning(ECHECKSUM, "record fails checksum (%s:%u)", DF_PATH, DF_NUM),
    drain_error(ENOEOF, "input hex-file (%s) has no EOF record", DF_PATH),
    drain_error(EIPCONFLICT, "input hex-file (%s:%u) has confliciting IP register records",
                DF_PATH, DF_NUM),
    drain_error(ECSCONFLICT, "input hex-file (%s:%u) has confliciting CS register records",
                DF_PATH, DF_NUM),
    drain_error(EUNKNOWNREC, "input hexfile (%s:%u) contains an unknown record type (%u)",
                DF_PATH, DF_NUM, DF_NUM2),
    drain_error(EBADCHAR, "input hexfile (%s:%u) contains an unexpected character", DF_PATH,
                DF_NUM),
    drain_error(EREADHEX, "input hexfile (%s:%u) contains an error", DF_PATH, DF_NUM),
    drain_error(EBELOWZERO, "offset (%d) would place data in hex-file (%s) at an address < 0",
                DF_VALUE, DF_PATH),
    kClash,
    kPreserved,
    kClobbered,
    // Not a message of its own: two different start linear addresses in
    // one file stop the tool.
    drain_internal(EEIPCONFLICT),
};

// The refusals every format's reader shares: placing its bytes.
#define PLACING_ROWS                                                                       \
  drain_error(EIO, "problem reading input hex-file (%s)", DF_PATH),                        \
      drain_error(EBELOWZERO, "offset (%d) would place data in hex-file (%s) at an address < 0", \
                  DF_VALUE, DF_PATH),                                                      \
      kClash, kPreserved, kClobbered

constexpr drain_row kSrecRows[] = {
    PLACING_ROWS,
    drain_message<2090, DF_PATH, DF_NUM_D>(EREADHEX),
    drain_message<2090, DF_PATH, DF_NUM_D>(EBADCHAR),
    drain_error(ENOEOF, "input S-record file (%s) holds no record", DF_PATH),
    drain_message<2091, DF_PATH, DF_NUM_D>(ECHECKSUM),
    drain_message<2092, DF_PATH, DF_NUM_D, DF_NUM2_D, DF_ADDR_D>(ECOUNT),
};

constexpr drain_row kElfRows[] = {
    PLACING_ROWS,
    drain_message<2093, DF_PATH, DF_REASON>(EBADFILE),
    // Sections may share file contents, so a small file can describe a
    // huge image.
    drain_budget(EBUDGET,
                 "input ELF file (%s) would add %lu rows of 256 addresses to the image, "
                 DRAIN_BUDGET_LIMIT,
                 DF_PATH, DF_ROWS),
};

constexpr drain_row kBinRows[] = {
    PLACING_ROWS,
    drain_budget(EBUDGET,
                 "input binary file (%s) would add %lu rows of 256 addresses to the image, "
                 DRAIN_BUDGET_LIMIT,
                 DF_PATH, DF_ROWS),
};
#undef PLACING_ROWS

const char *elfReason(uint32_t reason) {
  switch (reason) {
  case ELFFILE_UNREADABLE:
    return "not an ELF file of a class, byte order and version that can be read";
  case ELFFILE_TRUNCATED:
    return "the file ends inside a header table or a section's contents";
  case ELFFILE_MALFORMED:
    return "a header table or section header is malformed";
  case ELFFILE_NOTHING:
    return "no allocated section has contents to place";
  default:
    return "unknown";
  }
}

using readFn = bool (*)(ihex *, FILE *, const ihex_readspec *, const hexdata *, ihex_extent *);

// One input format: its reader, its drain table, and whether a false result
// of the reader refuses the file (an Intel HEX file with only bad checksums
// is still merged, after its warnings).
struct infile_codec {
  readFn read;
  std::span<const drain_row> rows;
  bool refuseOnFalse;
  const char *(*reason)(uint32_t);
};

constexpr infile_codec kIhex{ihex_readToMerge, kReadRows, false, nullptr};
constexpr infile_codec kSrec{srec_readToMerge, kSrecRows, true, nullptr};
constexpr infile_codec kElf{elffile_readToMerge, kElfRows, true, elfReason};
constexpr infile_codec kBin{bin_readToMerge, kBinRows, true, nullptr};

bool endsWithBin(const char *path) {
  const size_t n = std::strlen(path);
  return n >= 4 && strcasecmp(path + n - 4, ".bin") == 0;
}

// What the first bytes of a file and its name say it holds: ELF by its magic
// number, raw binary by the name, S-records by a first line starting "S0" to
// "S9"; anything else is read as Intel HEX.
const infile_codec &codecFor(const unsigned char *head, size_t n, const char *path) {
  if (n >= 4 && std::memcmp(head, "\x7f" "ELF", 4) == 0)
    return kElf;
  if (endsWithBin(path))
    return kBin;
  if (n >= 2 && head[0] == 'S' && head[1] >= '0' && head[1] <= '9')
    return kSrec;
  return kIhex;
}

// A stream that cannot seek back (a pipe) is read through one that first
// gives back the bytes taken to tell its format.
struct peeked {
  FILE *under;
  unsigned char head[4];
  size_t n, at = 0;
};

ssize_t peekedRead(void *cookie, char *buf, size_t size) {
  peeked *p = static_cast<peeked *>(cookie);
  if (p->at < p->n) {
    const size_t k = std::min(size, p->n - p->at);
    std::memcpy(buf, p->head + p->at, k);
    p->at += k;
    return static_cast<ssize_t>(k);
  }
  const size_t k = std::fread(buf, 1, size, p->under);
  return k == 0 && std::ferror(p->under) ? -1 : static_cast<ssize_t>(k);
}

int peekedClose(void *cookie) {
  peeked *p = static_cast<peeked *>(cookie);
  const int r = std::fclose(p->under);
  delete p;
  return r;
}

// Reads the first bytes of `in` to choose its codec and returns the stream
// to read from, positioned at its start (null when that failed: in is
// closed).
FILE *openAtStart(FILE *in, const char *path, const infile_codec **codec) {
  // Asked before reading: a failed seek may drop what the stream buffered.
  const bool seekable = lseek(fileno(in), 0, SEEK_CUR) != -1;
  unsigned char head[4];
  const size_t n = std::fread(head, 1, sizeof head, in);
  *codec = &codecFor(head, n, path);
  if (seekable) {
    std::rewind(in);
    return in;
  }
  auto *p = new peeked{in, {}, n};
  std::memcpy(p->head, head, n);
  FILE *f = fopencookie(p, "rb", cookie_io_functions_t{peekedRead, nullptr, nullptr, peekedClose});
  if (!f) {
    std::fclose(in);
    delete p;
  }
  return f;
}

// Merging a good file into the run's image.
constexpr drain_row kMergeRows[] = {
    kClash,
    kPreserved,
    kClobbered,
    // The file's start addresses were reconciled and cleared before the
    // merge, so it cannot disagree with the run's image about them.
    drain_internal(EIPCONFLICT),
    drain_internal(ECSCONFLICT),
    drain_internal(EEIPCONFLICT),
};

// Range and offset are kept in address units as typed; doINFILE converts
// them to bytes once, with the unit -ADDRESSING set for the run.
bool parseSubSpecs(romweld_arg *a, ihex_readspec *s, const char *p, const char *end) {
  bool haveRange = false, haveOffset = false;
  while (p < end) {
    const char c = *p;
    if (c == 'r' || c == 'R') {
      if (haveRange) {
        arg_error(a, "can only specify one range");
        return false;
      }
      haveRange = true;
      rangereq r{a, p + 1, RADIX_DEFAULT_16};
      grammar_range(&r);
      if (r.error)
        return false;
      hex_clearErrors();
      if (!ihex_readspec_setStart(s, r.startValue)) {
        arg_error(a, "offset would place data below address 0");
        return false;
      }
      if (!ihex_readspec_setEnd(s, r.endValue)) {
        arg_error(a, "end address must be >= start address");
        return false;
      }
      p = r.end;
    } else if (c == 's' || c == 'S') {
      if (haveOffset) {
        arg_error(a, "can only specify one offset");
        return false;
      }
      haveOffset = true;
      numreq n{a, "offset", p + 1, 4, RADIX_DEFAULT_16};
      grammar_number(&n);
      if (n.error)
        return false;
      hex_clearErrors();
      if (!ihex_readspec_setOffset(s, static_cast<int32_t>(static_cast<uint32_t>(n.value)))) {
        arg_error(a, "offset would place data below address 0");
        return false;
      }
      p = n.end;
    } else {
      arg_error(a, "malformed option");
      return false;
    }
  }
  return true;
}

// Reconciles one start address record of a file with the run's setting.
void reconcile(romweld_arg *a, startaddr *s, bool allowed, const char *kind, uint32_t value) {
  if (!allowed) {
    arg_warning(a,
                "contains a \"%s\" record (%08X), which will be discarded%s", kind, value,
                alert_format(" because chosen output format (%s) does not permit such records",
                             romweld.output.format ? romweld.output.format->name
                                                   : outformat_default()->name)
                    .c_str());
    return;
  }
  switch (s->state) {
  case 1:
    if (!s->current.definedBy || s->current.value == value) {
      s->current.definedBy = a;
      s->current.value = value;
    } else {
      arg_warning(a,
                  "contains a \"%s\" record (%08X) that conflicts with the record in \"%s\" "
                  "(%08X), all such records will be discarded",
                  kind, value, s->current.definedBy->str.c_str(), s->current.value);
      s->state = 0;
    }
    break;
  case 2: // the option wins over every file
    break;
  default:
    arg_warning(a, "contains a \"%s\" record (%08X), which will be discarded%s", kind, value, "");
    break;
  }
}

// The read settings with their range and offset turned from address units
// into bytes, exactly once, with the unit -ADDRESSING set for the run.
bool readSpecInBytes(const romweld_arg *a, const ihex_readspec &units, ihex_readspec *bytes) {
  *bytes = units;
  if (!units_rangeToBytes(a, units.range, &bytes->range))
    return false;
  int64_t offset = 0;
  if (!units_offsetToBytes(a, "offset", units.offset, &offset))
    return false;
  bytes->offset = static_cast<int32_t>(offset);
  if (offset != bytes->offset) {
    arg_error(a, "offset (%" PRId64 ") is out of range", offset);
    return false;
  }
  return true;
}

} // namespace

int parseINFILE(romweld_arg *a) {
  const char *t = a->str.c_str();
  const bool forced = *t == '+';
  if (forced)
    ++t;
  if (*t == '-')
    return MATCH_NONE;
  a->id = ARGT_INFILE;
  infile_spec &spec = arg_newSpec<infile_spec>(a);
  store_setClobber(&spec.read.policy, forced);
  if (const char *comma = std::strchr(t, ',')) {
    if (!parseSubSpecs(a, &spec.read, t, comma))
      return MATCH_ERROR;
    spec.path = comma + 1;
  } else {
    spec.path = t;
  }
  store_setOwner(&spec.read.policy, a);
  a->op = doINFILE;
  return MATCH_OK;
}

bool doINFILE(romweld_arg *a) {
  const infile_spec &in_spec = arg_spec<infile_spec>(a);
  const char *path = in_spec.path.c_str();
  hex_clearErrors();
  FILE *in = std::fopen(path, "rb");
  struct stat st;
  if (in && (fstat(fileno(in), &st) != 0 || S_ISDIR(st.st_mode))) {
    std::fclose(in);
    in = nullptr;
  }
  const infile_codec *codec = &kIhex;
  if (in)
    in = openAtStart(in, path, &codec);
  if (!in) {
    arg_error(a, "cannot open input hex-file (%s)", path);
    return false;
  }
  ihex *x = ihex_create();
  if (!x)
    alert_outOfMemory();

  ihex_readspec spec;
  if (!readSpecInBytes(a, in_spec.read, &spec)) {
    std::fclose(in);
    ihex_destroy(x);
    return false;
  }

  // A later file leaves out of its own image the bytes that the main image
  // already holds unchanged, so an overlap is not held twice.
  ihex_extent placed;
  const bool read = codec->read(x, in, &spec, romweld.hex ? ihex_getImage(romweld.hex) : nullptr,
                                &placed);
  const drain_ctx ctx{a, path, spec.offset, codec->reason};
  const bool broken = !drain_errors(codec->rows, ctx) || (codec->refuseOnFalse && !read);

  // Start addresses are reconciled before a broken file is dropped: its
  // records still draw their warnings, although the run stops with it.
  const outformat *f = romweld.output.format ? romweld.output.format : outformat_default();
  if (ihex_hasSLA(x))
    reconcile(a, &romweld.sla, f->allowSLA, "Start Linear Address", ihex_getSLA(x));
  ihex_clearSLA(x);
  if (ihex_hasSSA(x))
    reconcile(a, &romweld.ssa, f->allowSSA, "Start Segment Address", ihex_getSSA(x));
  ihex_clearSSA(x);
  if (broken) {
    std::fclose(in);
    ihex_destroy(x);
    hex_clearErrors();
    return false;
  }

  hex_clearErrors();
  if (placed.count > 0)
    romweld_widenExtents(placed.lo, placed.hi);

  bool ok = true;
  if (!romweld.hex) {
    romweld.hex = x;
  } else {
    const bool merged = ihex_merge(romweld.hex, x, in_spec.read.policy.clobber);
    ok = drain_errors(kMergeRows, ctx) && merged;
    ihex_destroy(x);
  }
  hex_clearErrors();
  std::fclose(in);
  return ok;
}
