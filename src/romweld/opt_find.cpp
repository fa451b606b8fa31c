// -FIND, ,REPLACE and ,DELETE: "-find=code[Mmask]@start-end[/align][w][tTitle]"
// alone, or followed by ",replace=code[Mmask]" or ",delete". The three forms
// share the search; each execution collects every match before it changes
// anything, writes its results to the log's find section, and keeps the
// matches in the argument record. A replace merges its code into each match
// under its mask and stores it by force; a delete leaves a gap that a later
// fill may fill. Both own the bytes they touch and widen the placed-data
// span; a replace also widens the log's extents.
#include <cctype>
#include <cstring>
#include <string>
#include <strings.h>

#include "common/alert.h"
#include "image/hex_errno.h"
#include "image/hexdata_find.h"
#include "romweld/args.h"
#include "romweld/drain.h"
#include "romweld/grammar.h"
#include "romweld/log.h"
#include "romweld/options.h"
#include "romweld/settings.h"
#include "romweld/units.h"

namespace {

// Codes and masks drop an odd final digit, with a warning, as -MASK does.
constexpr int kNibbles = NIBBLE_LAST_TRUNCATE;

// The parser built the record; executions also keep their matches in it.
find_arg &findOf(romweld_arg *a) {
  find_arg *f = std::get_if<find_arg>(&a->spec);
  ROMWELD_ASSERT(f != nullptr);
  return *f;
}

// A byte list reads last byte first, as the number it makes.
std::string bytesText(std::span<const uint8_t> bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string s;
  s.reserve(bytes.size() * 2);
  for (size_t i = bytes.size(); i-- > 0;) {
    s += digits[bytes[i] >> 4];
    s += digits[bytes[i] & 15];
  }
  return s;
}

// Where `word` first appears in `text` from `from` on, without regard to
// case; npos when nowhere.
size_t findNoCase(const char *text, const char *word, size_t from = 0) {
  const size_t n = std::strlen(word), len = std::strlen(text);
  for (size_t i = from; i + n <= len; ++i)
    if (strncasecmp(text + i, word, n) == 0)
      return i;
  return std::string::npos;
}
bool hasNoCase(const romweld_arg *a, const char *word) {
  return findNoCase(a->str.c_str(), word) != std::string::npos;
}

// Reads what the three forms share, up to the first character that is no
// sub-option; returns the position there, or null after a message.
const char *initFindArg(romweld_arg *a, find_arg *f) {
  bool plus = false;
  const char *p = arg_matchWord(a, "-find", &plus);
  if (plus)
    arg_warning(a, "'+' prefix is not supported by -find");
  if (*p != '=') {
    arg_error(a, "malformed option");
    return nullptr;
  }
  codereq code{a, "search-code", p + 1, kNibbles, {}};
  grammar_codeString(&code);
  if (code.error)
    return nullptr;
  std::optional<std::vector<uint8_t>> mask;
  for (p = code.end;;) {
    const char c = *p;
    if (c == 'M' || c == 'm') {
      if (mask) {
        arg_error(a, "can only specify one code-mask");
        return nullptr;
      }
      codereq m{a, "search-mask", p + 1, kNibbles, {}};
      grammar_codeString(&m);
      if (m.error)
        return nullptr;
      if (m.result.size() != code.result.size()) {
        arg_error(a, "the search-mask must have the same length as the find-code");
        return nullptr;
      }
      mask = std::move(m.result);
      p = m.end;
    } else if (c == '@') {
      rangereq r{a, p + 1, RADIX_DEFAULT_16};
      grammar_range(&r);
      if (r.error)
        return nullptr;
      findspec_setRange(&f->spec, r.startValue, r.endValue);
      p = r.end;
    } else if (c == '/') {
      if (f->alignGiven) {
        arg_error(a, "can only specify the search-alignment once");
        return nullptr;
      }
      numreq n{a, "alignment", p + 1, 4, RADIX_DEFAULT_10};
      grammar_number(&n);
      if (n.error)
        return nullptr;
      f->spec.alignment = n.value; // 0 is refused below, once the range is known
      f->alignGiven = true;
      p = n.end;
    } else if (c == 'W' || c == 'w') {
      f->warn = true;
      ++p;
    } else if (c == 'T' || c == 't') {
      const char *stop = std::strchr(p + 1, ',');
      std::string title(p + 1, stop ? stop : p + std::strlen(p));
      if (title.empty()) {
        arg_error(a, "title is an empty string");
        return nullptr;
      }
      for (char &ch : title)
        if (ch == '#')
          ch = ' ';
      f->title = "\"" + title + "\"";
      p += 1 + title.size();
      break;
    } else {
      break;
    }
  }
  if (!f->spec.hasStart) {
    arg_error(a, "no address range specified");
    return nullptr;
  }
  if (!findspec_setAlignment(&f->spec, f->spec.alignment)) {
    arg_error(a, "cannot have a search-alignment of 0");
    return nullptr;
  }
  if (!findspec_setCode(&f->spec, code.result, mask ? &*mask : nullptr)) {
    arg_error(a, "no search codes specified");
    return nullptr;
  }
  return p;
}

// What follows the search must be `word` ("," and the sub-option); returns
// the position behind it, or null after a message.
const char *expectForm(const romweld_arg *a, const char *p, const char *word, const char *name) {
  if (strncasecmp(p, word, std::strlen(word)) == 0)
    return p + std::strlen(word);
  const size_t at = findNoCase(p, word);
  const std::string garbage(p, at == std::string::npos ? std::strlen(p) : at);
  arg_error(a, "garbage (\"%s\") before \"%s\" sub-option", garbage.c_str(), name);
  return nullptr;
}

bool nothingLeft(const romweld_arg *a, const char *p) {
  if (*p == '\0')
    return true;
  arg_error(a, "garbage (\"%s\") at the end of option", p);
  return false;
}

// ---- execution -------------------------------------------------------------

// The search in byte addresses, with the unit -ADDRESSING set for the run;
// the alignment counts units only when it was given.
bool updateFindSpecAddressing(const romweld_arg *a, const find_arg &f, findspec *bytes) {
  *bytes = f.spec;
  if (f.spec.hasStart &&
      !units_toBytes(a, "start address", UNITS_START, f.spec.start, &bytes->start))
    return false;
  if (f.spec.hasEnd && !units_toBytes(a, "end address", UNITS_END, f.spec.end, &bytes->end))
    return false;
  return !f.alignGiven ||
         units_toBytes(a, "alignment", UNITS_INTERVAL, f.spec.alignment, &bytes->alignment);
}

// The parser refuses every record the search could refuse.
constexpr drain_row kSearchRows[] = {drain_internal(ENULL), drain_internal(ENOCODE)};

// Changing a match: overwriting or deleting a byte that another argument
// placed by force is announced, and goes on.
constexpr drain_row kChangeRows[] = {
    drain_message<962, DF_ADDR_H, DF_OWNER, DF_ARG>(ECLOBBERED),
    drain_count(EMEMORY),
};

enum find_action { FIND_ONLY, FIND_REPLACE, FIND_DELETE };

bool replaceRun(romweld_arg *a, const find_arg &f, hexdata *h, uint64_t at,
                std::span<const uint8_t> found) {
  const size_t n = found.size();
  log_print(", replaced with (");
  for (size_t i = n; i-- > 0;) {
    const uint8_t m = f.replacementMask[i];
    const uint8_t v = uint8_t((f.replacement[i] & m) | (found[i] & ~m));
    (void)hex_forceByte(h, at + i, v); // refusals are in the error list
    log_print("%02X", v);
  }
  log_print("h)\n");
  (void)hex_setNote(h, at, at + n - 1, a);
  romweld_widenSpan(at, at + n - 1);
  romweld_widenExtents(at, at + n - 1);
  return drain_errors(kChangeRows, drain_ctx{a});
}

bool deleteRun(romweld_arg *a, hexdata *h, uint64_t at, size_t n) {
  (void)hex_deleteBytes(h, at, n);
  (void)hex_setNote(h, at, at + n - 1, a);
  romweld_widenSpan(at, at + n - 1);
  log_print(" and deleted\n");
  return drain_errors(kChangeRows, drain_ctx{a});
}

bool execute(romweld_arg *a, find_action action) {
  find_arg &f = findOf(a);
  findspec s;
  if (!updateFindSpecAddressing(a, f, &s))
    return false;
  hexdata *h = ihex_getImage(romweld.hex);
  hex_clearErrors();
  if (!hex_find(h, &s, &f.matches)) {
    (void)drain_errors(kSearchRows, drain_ctx{a});
    return false;
  }
  log_findSection();
  log_print(" Search results for %s (%sh & %sh): (%s)\n", f.title.c_str(),
            bytesText(s.code).c_str(), bytesText(s.mask).c_str(), a->str.c_str());
  bool ok = true;
  const size_t n = f.matches.width;
  for (size_t i = 0; i < f.matches.count(); ++i) {
    const uint64_t at = f.matches.addrs[i];
    const std::span<const uint8_t> found = f.matches.bytes(i);
    if (f.warn || log_isOpen()) { // most runs show nothing of a match
      const std::string text = bytesText(found);
      if (f.warn)
        alert<1212>(f.title.c_str(), text.c_str(), alert_format("%lX", at).c_str());
      log_print("  found (%sh) at address %lXh", text.c_str(), at);
    }
    if (action == FIND_ONLY) {
      log_print("\n");
      continue;
    }
    hex_clearErrors();
    if (hex_anyPreserved(h, at, n)) {
      // Intended: a replace is refused with the delete's words, and the
      // match's log line is left without its end.
      arg_error(a, "cannot delete %u byte(s) of preserved data at 0x%lX", unsigned(n), at);
      ok = ok && action == FIND_DELETE; // a refused delete does not fail the run
      continue;
    }
    if (action == FIND_REPLACE)
      ok = replaceRun(a, f, h, at, found) && ok;
    else
      ok = deleteRun(a, h, at, n) && ok;
  }
  if (f.matches.count() == 0)
    log_print("  No occurrences found.\n");
  hex_clearErrors();
  return ok;
}

} // namespace

int parseFIND(romweld_arg *a) {
  if (!arg_matchWord(a, "-find", nullptr) || hasNoCase(a, ",replace") || hasNoCase(a, ",delete"))
    return MATCH_NONE;
  a->id = ARGT_FIND;
  find_arg &f = arg_newSpec<find_arg>(a);
  const char *p = initFindArg(a, &f);
  if (!p || !nothingLeft(a, p))
    return MATCH_ERROR;
  a->op = doFIND;
  return MATCH_OK;
}

int parseREPLACE(romweld_arg *a) {
  if (!arg_matchWord(a, "-find", nullptr) || !hasNoCase(a, ",replace"))
    return MATCH_NONE;
  a->id = ARGT_REPLACE;
  // Intended: this parser and parseDELETE name the two options in opposite
  // orders; with the fixed parser order the delete's words are the ones seen.
  if (hasNoCase(a, ",delete")) {
    arg_error(a, "cannot mix \"delete\" with \"replace\"");
    return MATCH_ERROR;
  }
  find_arg &f = arg_newSpec<find_arg>(a);
  const char *p = initFindArg(a, &f);
  if (!p)
    return MATCH_ERROR;
  f.spec.overlap = false;
  p = expectForm(a, p, ",replace", "replace");
  if (!p)
    return MATCH_ERROR;
  if (*p != '=') {
    arg_error(a, "malformed option");
    return MATCH_ERROR;
  }
  codereq code{a, "replacement code", p + 1, kNibbles, {}};
  grammar_codeString(&code);
  if (code.error)
    return MATCH_ERROR;
  if (code.result.size() != f.spec.code.size()) {
    arg_error(a, "the replacement code must have the same length as the serach-code");
    return MATCH_ERROR;
  }
  f.replacement = std::move(code.result);
  f.replacementMask.assign(f.replacement.size(), 0xFF);
  p = code.end;
  if (*p == 'M' || *p == 'm') {
    codereq mask{a, "replacement mask", p + 1, kNibbles, {}};
    grammar_codeString(&mask);
    if (mask.error)
      return MATCH_ERROR;
    if (mask.result.size() != f.replacement.size()) {
      arg_error(a, "the replacement mask must have the same length as the replacement code");
      return MATCH_ERROR;
    }
    f.replacementMask = std::move(mask.result);
    p = mask.end;
  }
  if (!nothingLeft(a, p))
    return MATCH_ERROR;
  a->op = doREPLACE;
  return MATCH_OK;
}

int parseDELETE(romweld_arg *a) {
  if (!arg_matchWord(a, "-find", nullptr) || !hasNoCase(a, ",delete"))
    return MATCH_NONE;
  a->id = ARGT_DELETE;
  if (hasNoCase(a, ",replace")) {
    arg_error(a, "cannot mix \"replace\" with \"delete\"");
    return MATCH_ERROR;
  }
  find_arg &f = arg_newSpec<find_arg>(a);
  const char *p = initFindArg(a, &f);
  if (!p || !(p = expectForm(a, p, ",delete", "delete")) || !nothingLeft(a, p))
    return MATCH_ERROR;
  a->op = doDELETE;
  return MATCH_OK;
}

bool doFIND(romweld_arg *a) { return execute(a, FIND_ONLY); }
bool doREPLACE(romweld_arg *a) { return execute(a, FIND_REPLACE); }
bool doDELETE(romweld_arg *a) { return execute(a, FIND_DELETE); }
