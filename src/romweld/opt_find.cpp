// -FIND, ,REPLACE and ,DELETE: "-find=code[Mmask]@start-end[/align][w][tTitle]"
// alone, or followed by ",replace=code[Mmask]" or ",delete". The three forms
// share the search; each execution collects every match before it changes
// anything, writes its results to the log's find section, and keeps the
// matches in the argument record. A replace merges its code into each match
// under its mask and stores it by force; a delete leaves a gap that a later
// fill may fill. Both own the bytes they touch; a replace also widens the
// log's extents.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <strings.h>
#include <vector>

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

// The sub-options of the search, each at most once where that matters.
struct search_text {
  std::vector<uint8_t> code;
  std::optional<std::vector<uint8_t>> mask;
  uint64_t alignment = 1;
  bool hasRange = false;
};

const char *readMask(romweld_arg *a, search_text *t, const char *p) {
  if (t->mask) {
    arg_error(a, "can only specify one code-mask");
    return nullptr;
  }
  std::vector<uint8_t> m;
  if (!grammar_takeCode(a, "search-mask", ++p, kNibbles, &m))
    return nullptr;
  if (m.size() != t->code.size()) {
    arg_error(a, "the search-mask must have the same length as the find-code");
    return nullptr;
  }
  t->mask = std::move(m);
  return p;
}

// An alignment of 0 is refused once the range is known.
const char *readAlignment(romweld_arg *a, find_arg *f, search_text *t, const char *p) {
  if (f->alignGiven) {
    arg_error(a, "can only specify the search-alignment once");
    return nullptr;
  }
  if (!grammar_take(a, "alignment", ++p, 4, RADIX_DEFAULT_10, &t->alignment))
    return nullptr;
  f->alignGiven = true;
  return p;
}

// A title runs to the next ',' or the end; '#' stands for a blank.
const char *readTitle(romweld_arg *a, find_arg *f, const char *p) {
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
  return p + 1 + title.size();
}

// Reads what the three forms share, up to the first character that is no
// sub-option; returns the position there, or null after a message.
const char *initFindArg(romweld_arg *a, find_arg *f, uint32_t id, romweld_op op) {
  int result;
  const char *p = arg_open(a, "-find", id, op, PLUS_IGNORED_FIRST, &result);
  search_text t;
  if (!p || !grammar_takeCode(a, "search-code", p, kNibbles, &t.code))
    return nullptr;
  for (bool more = true; p && more;) {
    switch (*p) {
    case 'M': case 'm':
      p = readMask(a, &t, p);
      break;
    case '@': {
      rangereq r{a, p + 1, RADIX_DEFAULT_16};
      grammar_range(&r);
      if (r.error)
        return nullptr;
      findspec_setRange(&f->spec, r.startValue, r.endValue);
      t.hasRange = true;
      p = r.end;
      break;
    }
    case '/':
      p = readAlignment(a, f, &t, p);
      break;
    case 'W': case 'w':
      f->warn = true;
      ++p;
      break;
    case 'T': case 't':
      p = readTitle(a, f, p);
      more = false;
      break;
    default:
      more = false;
    }
  }
  if (!p)
    return nullptr;
  if (!t.hasRange) {
    arg_error(a, "no address range specified");
    return nullptr;
  }
  if (!findspec_setAlignment(&f->spec, t.alignment)) {
    arg_error(a, "cannot have a search-alignment of 0");
    return nullptr;
  }
  if (!findspec_setCode(&f->spec, t.code, t.mask ? &*t.mask : nullptr)) {
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
  if (!units_rangeToBytes(a, f.spec.range, &bytes->range))
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
};

enum find_action { FIND_ONLY, FIND_REPLACE, FIND_DELETE };

// The bytes of each match as the search found them, read from the image as
// the matches come. A delete takes bytes that later matches may share; the
// match just before holds all of those, so they come from its bytes.
class found_bytes {
public:
  found_bytes(const hexdata *h, size_t n) : h_(h), bytes_(n) {}

  std::span<const uint8_t> at(uint64_t addr) {
    const size_t n = bytes_.size();
    const size_t shared = any_ && addr - prev_ < n ? n - size_t(addr - prev_) : 0;
    std::copy(bytes_.end() - shared, bytes_.end(), bytes_.begin());
    for (size_t i = shared; i < n; ++i)
      bytes_[i] = hex_getByte(h_, addr + i);
    prev_ = addr;
    any_ = true;
    return bytes_;
  }

private:
  const hexdata *h_;
  std::vector<uint8_t> bytes_;
  uint64_t prev_ = 0;
  bool any_ = false;
};

// The code merged into a match's bytes under the replacement mask.
void replacementOf(const find_arg &f, std::span<const uint8_t> found, uint8_t *out) {
  for (size_t i = 0; i < found.size(); ++i) {
    const uint8_t m = f.replacementMask[i];
    out[i] = uint8_t((f.replacement[i] & m) | (found[i] & ~m));
  }
}

// Message 1212 and the start of the match's log line, when either is wanted.
void showFound(const find_arg &f, uint64_t at, std::span<const uint8_t> found) {
  const std::string text = bytesText(found);
  if (f.warn)
    alert<1212>(f.title.c_str(), text.c_str(), alert_format("%lX", at).c_str());
  log_print("  found (%sh) at address %lXh", text.c_str(), at);
}

// v: room for the match's new bytes.
bool replaceMatch(romweld_arg *a, const find_arg &f, hexdata *h, uint64_t at,
                  std::span<const uint8_t> found, std::span<uint8_t> v) {
  const size_t n = found.size();
  replacementOf(f, found, v.data());
  log_print(", replaced with (%sh)\n", bytesText(v).c_str());
  for (size_t i = n; i-- > 0;)
    (void)hex_forceByte(h, at + i, v[i]); // refusals are in the error list
  (void)hex_setNote(h, at, at + n - 1, a);
  romweld_widenExtents(at, at + n - 1);
  return drain_errors(kChangeRows, drain_ctx{a});
}

bool deleteMatch(romweld_arg *a, hexdata *h, uint64_t at, size_t n) {
  (void)hex_deleteBytes(h, at, n);
  (void)hex_setNote(h, at, at + n - 1, a);
  log_print(" and deleted\n");
  return drain_errors(kChangeRows, drain_ctx{a});
}

// One match, refused when it holds a preserved byte.
bool changeMatch(romweld_arg *a, const find_arg &f, hexdata *h, find_action action, uint64_t at,
                 std::span<const uint8_t> found, std::span<uint8_t> scratch) {
  const size_t n = f.matches.width;
  hex_clearErrors();
  if (hex_anyPreserved(h, at, n)) {
    // Intended: a replace is refused with the delete's words, and the
    // match's log line is left without its end.
    arg_error(a, "cannot delete %u byte(s) of preserved data at 0x%lX", unsigned(n), at);
    return action == FIND_DELETE; // a refused delete does not fail the run
  }
  return action == FIND_REPLACE ? replaceMatch(a, f, h, at, found, scratch) : deleteMatch(a, h, at, n);
}

// True when no byte of first..last is preserved or was placed by force:
// changing it is then refused nowhere and announces nothing.
bool quietStretch(const hexdata *h, uint64_t first, uint64_t last) {
  for (uint64_t row = hex_rowOf(first);; ++row) {
    if (const hex_row *r = hex_getRow(h, row)) {
      const unsigned c0 = row == hex_rowOf(first) ? unsigned(first & 0xFF) : 0;
      const unsigned c1 = row == hex_rowOf(last) ? unsigned(last & 0xFF) : 255;
      for (unsigned w = c0 >> 6; w <= c1 >> 6; ++w)
        if ((r->preserved[w] | (r->forced[w] & r->present[w])) & plane_wordMask(w, c0, c1))
          return false;
    }
    if (row == hex_rowOf(last))
      return true;
  }
}

// A run whose matches leave no byte between them (a delete's may overlap,
// a replace's never do) over a quiet stretch changes as one stretch, a
// replace's in pieces of at most kPiece bytes: the image ends as it would
// match by match, and each match's lines are the same.
constexpr size_t kPiece = 65536;

bool changeRun(romweld_arg *a, const find_arg &f, hexdata *h, find_action action,
               const findmatches::run &r, bool show, found_bytes &found) {
  const size_t n = f.matches.width;
  hex_clearErrors();
  if (action == FIND_DELETE) {
    for (uint64_t k = 0; show && k < r.count; ++k) {
      const uint64_t at = r.first + k * r.step;
      showFound(f, at, found.at(at));
      log_print(" and deleted\n");
    }
    const uint64_t last = r.last() + n - 1;
    (void)hex_deleteBytes(h, r.first, last - r.first + 1);
    (void)hex_setNote(h, r.first, last, a);
    return drain_errors(kChangeRows, drain_ctx{a});
  }
  const uint64_t perPiece = std::max<size_t>(1, kPiece / n);
  std::vector<uint8_t> piece(std::min(r.count, perPiece) * n);
  for (uint64_t k = 0; k < r.count; k += perPiece) {
    const uint64_t m = std::min(perPiece, r.count - k), first = r.first + k * n;
    for (uint64_t j = 0; j < m; ++j) {
      const uint64_t at = first + j * n;
      const std::span<const uint8_t> bytes = found.at(at);
      replacementOf(f, bytes, &piece[j * n]);
      if (show) {
        showFound(f, at, bytes);
        log_print(", replaced with (%sh)\n", bytesText({&piece[j * n], n}).c_str());
      }
    }
    (void)hex_putBytes(h, first, piece.data(), m * n, 1);
    (void)hex_setNote(h, first, first + m * n - 1, a);
    romweld_widenExtents(first, first + m * n - 1);
  }
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
  const bool show = f.warn || log_isOpen(); // most runs show nothing of a match
  found_bytes found(h, n);
  std::vector<uint8_t> scratch(n);
  for (const findmatches::run &r : f.matches.runs) {
    if (action == FIND_ONLY && !show)
      break;
    const bool joined = r.count == 1 || (action == FIND_DELETE ? r.step <= n : r.step == n);
    if (action != FIND_ONLY && joined && quietStretch(h, r.first, r.last() + n - 1)) {
      ok = changeRun(a, f, h, action, r, show, found) && ok;
      continue;
    }
    for (uint64_t k = 0; k < r.count; ++k) {
      const uint64_t at = r.first + k * r.step;
      const std::span<const uint8_t> bytes =
          show || action == FIND_REPLACE ? found.at(at) : std::span<const uint8_t>();
      if (show)
        showFound(f, at, bytes);
      if (action == FIND_ONLY)
        log_print("\n");
      else
        ok = changeMatch(a, f, h, action, at, bytes, scratch) && ok;
    }
  }
  if (f.matches.empty())
    log_print("  No occurrences found.\n");
  hex_clearErrors();
  return ok;
}

} // namespace

int parseFIND(romweld_arg *a) {
  if (!arg_matchWord(a, "-find", nullptr) || hasNoCase(a, ",replace") || hasNoCase(a, ",delete"))
    return MATCH_NONE;
  find_arg &f = arg_newSpec<find_arg>(a);
  const char *p = initFindArg(a, &f, ARGT_FIND, doFIND);
  return p && nothingLeft(a, p) ? MATCH_OK : MATCH_ERROR;
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
  const char *p = initFindArg(a, &f, ARGT_REPLACE, doREPLACE);
  if (!p)
    return MATCH_ERROR;
  findspec_setOverlap(&f.spec, false);
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
  return nothingLeft(a, p) ? MATCH_OK : MATCH_ERROR;
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
  const char *p = initFindArg(a, &f, ARGT_DELETE, doDELETE);
  return p && (p = expectForm(a, p, ",delete", "delete")) && nothingLeft(a, p) ? MATCH_OK
                                                                                 : MATCH_ERROR;
}

bool doFIND(romweld_arg *a) { return execute(a, FIND_ONLY); }
bool doREPLACE(romweld_arg *a) { return execute(a, FIND_REPLACE); }
bool doDELETE(romweld_arg *a) { return execute(a, FIND_DELETE); }
