// Output stage: start addresses into the run's hex object, then the HEX
// text to a temporary file beside the output file that replaces it only
// when all of it was written (or to standard output when no -O names a
// file, or straight to a device or descriptor that -O names).
#include "romweld/output.h"

#include <cstdio>
#include <string>

#include "common/alert.h"
#include "common/atomicfile.h"
#include "image/hex_errno.h"
#include "formats/ihex.h"
#include "romweld/args.h"
#include "romweld/settings.h"

namespace {

const unsigned MSG_CANT_OPEN = 141;
const unsigned MSG_CANT_CREATE = 378;
const unsigned MSG_WRITE_ERROR = 413;
const unsigned MSG_NONCONFORMING = 1602;

const char *rangeReason(uint32_t reason) {
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

} // namespace

bool output_stage() {
  // Earlier steps of the run have settled the format, record length and image.
  ROMWELD_ASSERT(romweld.hex && romweld.output.format && romweld.output.maxLength != 0);
  ihex *x = romweld.hex;
  if (!setStartAddresses(x))
    return false;
  if (romweld.output.suppress)
    return true;

  const outformat *f = romweld.output.format;
  const bool toFile = romweld.output.path.has_value();
  const char *where = toFile ? romweld.output.path->c_str() : "stdout";
  atomic_file *file = nullptr;
  FILE *out = stdout;
  if (toFile) {
    std::string tried;
    file = atomic_open(*romweld.output.path, false, &tried);
    if (!file) {
      if (tried == *romweld.output.path)
        alert<MSG_CANT_CREATE>("output hex-file", where);
      else
        alert<MSG_CANT_OPEN>("temporary hex-file", tried.c_str());
      return false;
    }
    out = atomic_stream(file);
  }

  hex_clearErrors();
  ihex_setMaxLength(x, romweld.output.maxLength);
  ihex_write(x, out, f->writer);
  bool good = true, writeFailed = false;
  for (uint32_t i = 0; i < hex_errorCount(); ++i) {
    const hex_error e = hex_errorAt(i);
    if (e.code == EIO) {
      writeFailed = true;
    } else if (e.code == EHEX) {
      // Dropped start addresses were announced when they were discarded.
      if (e.num == IHEX_REASON_NO_SSA || e.num == IHEX_REASON_NO_SLA)
        continue;
      alert<MSG_NONCONFORMING>(rangeReason(e.num), f->name);
      good = false;
    } else {
      good = false;
    }
  }
  if (!toFile) {
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
      writeFailed = true;
  } else if (writeFailed || !good) {
    atomic_discard(file); // an existing output stays as it was
  } else {
    switch (atomic_commit(file)) {
    case ATOMIC_OK:
      break;
    case ATOMIC_WRITE_FAILED:
      writeFailed = true;
      break;
    case ATOMIC_CREATE_FAILED:
      // The text is complete; only putting it in place failed, and the
      // run goes on to finish its log.
      alert<MSG_CANT_CREATE>("output hex-file", where);
      return true;
    }
  }
  if (writeFailed)
    alert<MSG_WRITE_ERROR>(where); // fatal
  return good && !writeFailed;
}
