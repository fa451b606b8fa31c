// Input-file arguments: "[+][r<start>-<end>][s<offset>],path" or a plain
// path. Each file is read into a hex object of its own; a file with any
// reading error contributes nothing (no data, no start address), so the
// output never holds part of a broken file. The first good file becomes the
// run's hex object and later ones are merged into it in command-line order.
// Start address records are reconciled across files through the run-wide
// settings: state 1 takes the first value, a disagreement discards them all
// (state 0), and a --SLA / --SSA option (state 2) overrides every file.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "common/alert.h"
#include "ihex/hex_errno.h"
#include "romweld/args.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

namespace {

const unsigned MSG_INTERNAL = 4;
const unsigned MSG_FORCED_CONFLICT = 962;

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

// The read spec with its range and offset turned from address units into
// bytes, exactly once, with the unit -ADDRESSING set for the run.
bool readSpecInBytes(const romweld_arg *a, const ihex_readspec &units, ihex_readspec *bytes) {
  *bytes = units;
  if (units.hasStart && !units_toBytes(a, "start address", UNITS_START, units.start, &bytes->start))
    return false;
  if (units.hasEnd && !units_toBytes(a, "end address", UNITS_END, units.end, &bytes->end))
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

const char *noteText(const void *note) {
  return note ? static_cast<const romweld_arg *>(note)->str.c_str() : "";
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
  spec.forced = forced;
  ihex_readspec_setCanBeClobbered(&spec.read, !forced);
  if (const char *comma = std::strchr(t, ',')) {
    if (!parseSubSpecs(a, &spec.read, t, comma))
      return MATCH_ERROR;
    spec.path = comma + 1;
  } else {
    spec.path = t;
  }
  ihex_readspec_setNote(&spec.read, a);
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
  ihex_readToMerge(x, in, &spec, romweld.hex ? ihex_getImage(romweld.hex) : nullptr, &placed);
  bool broken = false;
  for (uint32_t i = 0; i < hex_errorCount(); ++i) {
    const hex_error e = hex_errorAt(i);
    switch (e.code) {
    case EIO:
      arg_error(a, "problem reading input hex-file (%s)", path);
      break;
    case ECHECKSUM:
      arg_warning(a, "record fails checksum (%s:%u)", path, e.num);
      continue;
    case ENOEOF:
      arg_error(a, "input hex-file (%s) has no EOF record", path);
      break;
    case EIPCONFLICT:
      arg_error(a, "input hex-file (%s:%u) has confliciting IP register records", path, e.num);
      break;
    case ECSCONFLICT:
      arg_error(a, "input hex-file (%s:%u) has confliciting CS register records", path, e.num);
      break;
    case EUNKNOWNREC:
      arg_error(a, "input hexfile (%s:%u) contains an unknown record type (%u)", path, e.num,
                e.num2);
      break;
    case EBADCHAR:
      arg_error(a, "input hexfile (%s:%u) contains an unexpected character", path, e.num);
      break;
    case EREADHEX:
      arg_error(a, "input hexfile (%s:%u) contains an error", path, e.num);
      break;
    case EBELOWZERO:
      arg_error(a, "offset (%d) would place data in hex-file (%s) at an address < 0",
                spec.offset, path);
      break;
    case EMEMORY:
      break;
    default: // the image's refusals too: a file placing one address twice is not expected
      alert<MSG_INTERNAL>();
      break;
    }
    broken = true;
  }

  // Start addresses are reconciled before a broken file is dropped: its
  // records still draw their warnings, although the run stops with it.
  const outformat *f = romweld.output.format ? romweld.output.format : outformat_default();
  const uint32_t mySSA = ihex_getSSA(x), mySLA = ihex_getSLA(x);
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
    romweld_widenSpan(placed.lo, placed.hi);

  bool ok = true;
  if (!romweld.hex) {
    romweld.hex = x;
  } else {
    ok = ihex_merge(romweld.hex, x, in_spec.forced);
    for (uint32_t i = 0; i < hex_errorCount(); ++i) {
      const hex_error e = hex_errorAt(i);
      switch (e.code) {
      case ECLASH:
        arg_error(a, "data in \"%s\" conflicts with existing data at address 0x%" PRIX64, path,
                  e.addr);
        break;
      case EPRESERVED:
        arg_error(a,
                  "cannot merge data in \"%s\" at address 0x%" PRIX64
                  " because existing is preserved",
                  path, e.addr);
        break;
      case ECLOBBERED:
        alert<MSG_FORCED_CONFLICT>(alert_format("%" PRIX64 "h", e.addr).c_str(),
              noteText(e.note), a->str.c_str());
        continue;
      case EIPCONFLICT:
      case ECSCONFLICT:
        arg_error(a, "Start Segment Address record (%08X) in \"%s\" conflicts with existing "
                     "record (%08X)",
                  mySSA, path, ihex_getSSA(romweld.hex));
        break;
      case EEIPCONFLICT:
        arg_error(a, "Start Linear Address record (%08X) in \"%s\" conflicts with existing "
                     "record (%08X)",
                  mySLA, path, ihex_getSLA(romweld.hex));
        break;
      case EMEMORY:
        break;
      default:
        alert<MSG_INTERNAL>();
        break;
      }
      ok = false;
    }
    ihex_destroy(x);
  }
  hex_clearErrors();
  std::fclose(in);
  return ok;
}
