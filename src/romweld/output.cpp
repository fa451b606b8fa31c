// The files a run writes: the output (a temporary file beside the output
// file, or standard output, or straight to a device or descriptor that -O
// names) and the log (a temporary file beside its target). Nothing is put
// in place until both texts are complete: a run that fails leaves every
// existing file as it was, and a temporary not put in place is removed when
// the process ends, however it ends.
#include "romweld/output.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "common/alert.h"
#include "common/atomicfile.h"
#include "image/hex_errno.h"
#include "formats/bin.h"
#include "formats/ihex.h"
#include "formats/srec.h"
#include "common/osdep.h"
#include "romweld/args.h"
#include "romweld/argspec.h"
#include "romweld/drain.h"
#include "romweld/log.h"
#include "romweld/settings.h"

namespace {

const unsigned MSG_CANT_OPEN = 141;
const unsigned MSG_CANT_CREATE = 378;
const unsigned MSG_WRITE_ERROR = 413;
const unsigned MSG_NONCONFORMING = 1602;

const unsigned MSG_BINARY_SPAN = 2094;
const unsigned MSG_START_AS_ZERO = 2095;

// The largest raw binary a run writes: a stray byte far from the rest
// must not silently make a file of hundreds of megabytes.
constexpr uint64_t BINARY_SPAN_LIMIT = uint64_t(1) << 30;

const char *rangeReason(const outformat *f, uint32_t reason) {
  if (f->codec == OUT_SREC) {
    switch (reason) {
    case SREC_REASON_S19_RANGE:
      return "data at address > 0xFFFF";
    case SREC_REASON_S28_RANGE:
      return "data at address > 0xFFFFFF";
    case SREC_REASON_S37_RANGE:
      return "data at address > 0xFFFFFFFF";
    default:
      return "unknown";
    }
  }
  switch (reason) {
  case IHEX_REASON_8M_RANGE:
    return "data at address > 0xFFFF";
  case IHEX_REASON_16_RANGE:
    return "data at address > 0xFFFFF";
  case IHEX_REASON_32_RANGE:
    return "data at address > 0xFFFFFFFF";
  default:
    return "unknown";
  }
}

// A raw binary runs from the lowest to the highest data address; one that
// would pass the limit is refused before any file is opened.
bool binarySpanFits(ihex *x) {
  const hexdata *h = ihex_getImage(x);
  if (hex_getByteCount(h) == 0)
    return true;
  const uint64_t lo = hex_getLoAddr(h), hi = hex_getHiAddr(h);
  if (hi - lo < BINARY_SPAN_LIMIT)
    return true;
  const std::string span = hi - lo == ~uint64_t(0) ? "18446744073709551616"
                                                   : std::to_string(hi - lo + 1);
  alert<MSG_BINARY_SPAN>(span.c_str(), alert_format("%lX", lo).c_str(),
                         alert_format("%lX", hi).c_str(),
                         std::to_string(BINARY_SPAN_LIMIT).c_str());
  return false;
}

void writeImage(ihex *x, FILE *out, const outformat *f) {
  switch (f->codec) {
  case OUT_IHEX:
    ihex_write(x, out, f->writer);
    break;
  case OUT_SREC:
    srec_write(x, out, f->writer);
    break;
  case OUT_BIN:
    bin_write(x, out);
    break;
  }
}

// Start addresses are set from the settings, where files and options have
// already been reconciled; state 0 means they were discarded.
bool setStartAddresses(ihex *x) {
  hex_clearErrors();
  if (romweld.ssa.state != 0 && romweld.ssa.current.definedBy) {
    const uint32_t v = romweld.ssa.current.value;
    ihex_setSSA(x, v >> 16, v & 0xFFFF);
    if (hex_errno() != EOK)
      return false;
  }
  hex_clearErrors();
  if (romweld.sla.state != 0 && romweld.sla.current.definedBy) {
    ihex_setSLA(x, romweld.sla.current.value);
    if (hex_errno() != EOK)
      return false;
  }
  return true;
}


// The path the output goes to, decided by the last -O given (a bare -O
// writes nothing); null for standard output or none.
const std::string *outputPath() {
  const std::string *path = nullptr;
  for (const auto &a : args_all())
    if (const auto *o = std::get_if<outfile_spec>(&a->spec))
      path = o->path ? &*o->path : nullptr;
  return path;
}

// Whether a and b name one file, through links: the same device and inode,
// or, for a file not made yet, the same place.
bool sameFile(const std::string &a, const std::string &b) {
  struct stat sa, sb;
  if (stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0)
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
  return atomic_targetOf(a) == atomic_targetOf(b);
}

// A log that would replace an input or the output destroys what the run
// reads or writes: refused before anything is read.
bool logClashes(const std::string &log, const std::string *out) {
  const romweld_arg *logArg = nullptr;
  for (const auto &a : args_all())
    if (a->id == ARGT_LOGFILE)
      logArg = a.get();
  ROMWELD_ASSERT(logArg != nullptr);
  for (const auto &a : args_all()) {
    const auto *in = std::get_if<infile_spec>(&a->spec);
    if (in && sameFile(log, in->path)) {
      arg_error(logArg, "log-file names the input file \"%s\"", in->path.c_str());
      return true;
    }
  }
  if (out && sameFile(log, *out)) {
    arg_error(logArg, "log-file names the output file \"%s\"", out->c_str());
    return true;
  }
  return false;
}

// The directory a new file at path would go into can take it: it exists
// and may be written.
bool directoryTakes(const std::string &path) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
    return true; // a device, a link or a directory: judged when opened
  const std::string dir = os_dirname(path);
  return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && access(dir.c_str(), W_OK | X_OK) == 0;
}

} // namespace

bool output_prepare() {
  const std::string *out = outputPath();
  if (out && !directoryTakes(*out)) {
    alert<MSG_CANT_CREATE>("output hex-file", out->c_str());
    return false;
  }
  if (!romweld.log.path)
    return true;
  const std::string &log = *romweld.log.path;
  if (logClashes(log, out)) {
    errno = EEXIST;
    alert<MSG_CANT_OPEN>("romweld log-file", log.c_str());
    return false;
  }
  std::string tried;
  romweld.log.file = atomic_open(log, &tried);
  if (!romweld.log.file) {
    alert<MSG_CANT_OPEN>("romweld log-file", log.c_str());
    return false;
  }
  romweld.log.fp = atomic_stream(romweld.log.file);
  // A map can run to tens of megabytes: write it in large blocks.
  std::setvbuf(romweld.log.fp, nullptr, _IOFBF, size_t(1) << 20);
  log_writeOpening();
  return true;
}

bool output_write() {
  // Earlier steps of the run have settled the format, record length and image.
  ROMWELD_ASSERT(romweld.hex && romweld.output.format && romweld.output.maxLength != 0);
  ihex *x = romweld.hex;
  if (!setStartAddresses(x))
    return false;
  if (romweld.output.suppress)
    return true;

  const outformat *f = romweld.output.format;
  if (f->codec == OUT_BIN && !binarySpanFits(x))
    return false;
  const bool toFile = romweld.output.path.has_value();
  const char *where = toFile ? romweld.output.path->c_str() : "stdout";
  FILE *out = stdout;
  if (toFile) {
    std::string tried;
    atomic_file *file = atomic_open(*romweld.output.path, &tried);
    if (!file) {
      if (tried == *romweld.output.path)
        alert<MSG_CANT_CREATE>("output hex-file", where);
      else
        alert<MSG_CANT_OPEN>("temporary hex-file", tried.c_str());
      return false;
    }
    romweld.output.file = file;
    out = atomic_stream(file);
  }

  hex_clearErrors();
  ihex_setMaxLength(x, romweld.output.maxLength);
  writeImage(x, out, f);
  bool good = true, writeFailed = false;
  for (uint32_t i = 0; i < hex_errorCount(); ++i) {
    const hex_error e = hex_errorAt(i);
    if (e.code == EIO) {
      writeFailed = true;
    } else if (e.code == EHEX) {
      // Dropped start addresses were announced when they were discarded,
      // except one too wide for a forced S-record variant.
      if (e.num == IHEX_REASON_NO_SLA && f->codec == OUT_SREC)
        alert<MSG_START_AS_ZERO>(alert_format("%X", ihex_getSLA(x)).c_str(), f->name);
      if (e.num == IHEX_REASON_NO_SSA || e.num == IHEX_REASON_NO_SLA)
        continue;
      alert<MSG_NONCONFORMING>(rangeReason(f, e.num), f->name);
      good = false;
    } else {
      drain_unexpected(e.code);
    }
  }
  if (!toFile && (std::fflush(stdout) != 0 || std::ferror(stdout)))
    writeFailed = true;
  if (writeFailed)
    alert<MSG_WRITE_ERROR>(where); // fatal: the temporary goes at exit
  return good;
}

bool output_closeLog() {
  if (!romweld.log.file)
    return true;
  log_writeClosing();
  romweld.log.fp = nullptr;
  if (!atomic_finish(romweld.log.file))
    alert<MSG_WRITE_ERROR>(romweld.log.path->c_str()); // fatal
  return true;
}

bool output_place() {
  atomic_file *out = romweld.output.file, *log = romweld.log.file;
  romweld.output.file = romweld.log.file = nullptr;
  if (out && !atomic_finish(out))
    alert<MSG_WRITE_ERROR>(romweld.output.path->c_str()); // fatal
  // Both texts are complete: the output goes in place first, the log
  // after it, and a log that cannot follow fails the run as well.
  bool placed = true;
  if (out && !atomic_place(out)) {
    alert<MSG_CANT_CREATE>("output hex-file", romweld.output.path->c_str());
    placed = false;
  }
  if (log && !placed) {
    atomic_discard(log);
    log = nullptr;
  }
  if (log && !atomic_place(log)) {
    alert<MSG_CANT_CREATE>("romweld log-file", romweld.log.path->c_str());
    placed = false;
  }
  return placed;
}
