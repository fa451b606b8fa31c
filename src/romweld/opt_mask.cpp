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
  int result;
  // Masking is never forced: a '+' is ignored.
  const char *p = arg_open(a, "-mask", ARGT_MASK, doMASK, PLUS_IGNORED, &result);
  if (!p)
    return result;
  codereq code{a, "mask bytes", p, NIBBLE_LAST_TRUNCATE, {}};
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
  maskspec *m = &arg_newSpec<mask_arg>(a).spec;
  for (uint8_t b : code.result)
    maskspec_addMask(m, b);
  const bool ok = range_set(&m->range, range.startValue, range.endValue);
  ROMWELD_ASSERT(ok);
  return MATCH_OK;
}

bool doMASK(romweld_arg *a) {
  maskspec m = arg_spec<mask_arg>(a).spec;
  hex_clearErrors();
  if (!units_rangeToBytes(a, m.range, &m.range))
    return false;
  const int masked = hex_mask(ihex_getImage(romweld.hex), &m);
  const bool clean = drain_errors(kMaskRows, drain_ctx{a});
  return masked == 1 && clean && hex_errno() == EOK;
}
