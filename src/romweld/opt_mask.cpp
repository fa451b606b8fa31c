// -MASK=hexcode@start-end: ANDs the mask bytes into the data present in the
// range. It runs three times (after the inputs, after the fills, after the
// checksums), so data placed by any option is masked too.
#include "image/hex_errno.h"
#include "image/hexdata_mask.h"
#include "romweld/args.h"
#include "romweld/drain.h"
#include "romweld/grammar.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

namespace {

constexpr drain_row kMaskRows[] = {
    drain_error(EPRESERVED, "cannot mask data at address 0x%lX because existing data is preserved",
                DF_ADDR),
};

} // namespace

int parseMASK(romweld_arg *a) {
  bool plus = false;
  const char *p = arg_matchWord(a, "-mask", &plus);
  if (!p)
    return MATCH_NONE;
  a->id = ARGT_MASK;
  if (*p != '=') {
    arg_error(a, "malformed option");
    return MATCH_ERROR;
  }
  if (plus) // masking is never forced
    arg_warning(a, "'+' prefix is not supported by -mask");
  codereq code{a, "mask bytes", p + 1, NIBBLE_LAST_TRUNCATE, {}};
  grammar_codeString(&code);
  if (code.error)
    return MATCH_ERROR;
  if (*code.end != '@') {
    arg_error(a, "cannot determine address range to apply mask");
    return MATCH_ERROR;
  }
  rangereq range{a, code.end + 1, RADIX_16};
  grammar_range(&range);
  if (range.error)
    return MATCH_ERROR;
  if (*range.end) {
    arg_error(a, "garbage (\"%s\") at the end of option", range.end);
    return MATCH_ERROR;
  }
  // A reversed range would leave the end unset and mask up to the image's
  // last byte: refused instead.
  if (range.endValue < range.startValue) {
    arg_error(a, "end address must be >= start address");
    return MATCH_ERROR;
  }
  a->op = doMASK;
  maskspec *m = &arg_newSpec<mask_arg>(a).spec;
  for (uint8_t b : code.result)
    maskspec_addMask(m, b);
  hex_clearErrors();
  (void)maskspec_setStart(m, range.startValue);
  (void)maskspec_setEnd(m, range.endValue);
  return MATCH_OK;
}

bool doMASK(romweld_arg *a) {
  maskspec m = arg_spec<mask_arg>(a).spec;
  hex_clearErrors();
  if (!units_toBytes(a, "start address", UNITS_START, m.start, &m.start) ||
      !units_toBytes(a, "end address", UNITS_END, m.end, &m.end))
    return false;
  const int masked = hex_mask(ihex_getImage(romweld.hex), &m);
  const bool clean = drain_errors(kMaskRows, drain_ctx{a});
  return masked == 1 && clean && hex_errno() == EOK;
}
