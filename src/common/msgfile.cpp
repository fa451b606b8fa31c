#include "common/msgfile.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string_view>

#include "common/msgconv.h"
#include "common/osdep.h"
#include "common/zkinstdir.h"

const char *const msgfile_noDescription =
    "An error, warning or message was generated, but no description is available";

namespace {

constexpr char kCopyTemplate[] = "/tmp/zkXXXXXXX"; // the built-in copy's directory
constexpr char kCopyPrefix[] = "/tmp/zk";

struct msgfile_state {
  std::shared_ptr<msg_table> primary;
  std::shared_ptr<msg_table> text;
  std::optional<std::string> current;
  uint32_t lastNumber = 0;
  std::optional<std::optional<std::string>> installOverride;
};

msgfile_state &S() {
  static auto *s = new msgfile_state;
  return *s;
}

// Entries live as long as the process; tables only point at them.
std::deque<msg_entry> &arena() {
  static auto *a = new std::deque<msg_entry>;
  return *a;
}

const msg_entry *newEntry(msg_entry e) {
  arena().push_back(std::move(e));
  return &arena().back();
}

std::optional<std::string> installDir() {
  if (S().installOverride)
    return *S().installOverride;
  return zkinstdir(ZKDIR_INSTALL);
}

bool inDir(const std::string &path, const std::optional<std::string> &dir) {
  return dir && !dir->empty() && path.compare(0, dir->size(), *dir) == 0;
}

std::string baseName(const std::string &path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The built-in file parsed once from memory: the base of every merge and
// the reference for conversion checks.
const msg_table &builtinTable() {
  static std::shared_ptr<msg_table> t;
  if (!t) {
    FILE *fp = fmemopen(const_cast<char *>(msgs_en_text), msgs_en_size, "r");
    if (fp) {
      t = msgfile_parse(fp).table;
      std::fclose(fp);
    }
    if (!t)
      t = std::make_shared<msg_table>(MSG_MAX_NUMBER + 1, nullptr);
  }
  return *t;
}

std::shared_ptr<msg_table> mergeIntoBuiltin(const msg_table &loaded) {
  const msg_table &base = builtinTable();
  auto merged = std::make_shared<msg_table>(base);
  for (size_t n = 0; n < merged->size(); ++n) {
    const msg_entry *b = (*merged)[n];
    const msg_entry *l = n < loaded.size() ? loaded[n] : nullptr;
    if (!b || !l)
      continue;
    if (msgfile_sameConversions(l->text.c_str(), b->text.c_str())) {
      (*merged)[n] = l;
    } else {
      // The loaded kind still counts; its text would misread our arguments.
      msg_entry e = *l;
      e.text = b->text;
      (*merged)[n] = newEntry(std::move(e));
    }
  }
  return merged;
}

void install(std::shared_ptr<msg_table> t, const std::string &path) {
  S().text = t;
  if (!S().primary)
    S().primary = t;
  S().current = path;
}

} // namespace

// --- names and versions ------------------------------------------------------

const char *langStr(unsigned lang) {
  switch (lang) {
  case 7: return "de";
  case 12: return "fr";
  default: return "en"; // 9, 255 (default) and anything unknown
  }
}

std::string legacyMsgFile(unsigned lang) {
  return std::string(langStr(lang)) + "_msgs.txt";
}

std::string msgFileSuffix(unsigned lang) {
  return std::string("_") + langStr(lang) + ".msgs";
}

size_t findMsgFiles(const std::string &dir, unsigned lang,
                    std::vector<std::string> &list) {
  auto names = os_listDir(dir);
  if (!names)
    return 0;
  const std::string legacy = legacyMsgFile(lang);
  const std::string suffix = msgFileSuffix(lang);
  size_t added = 0;
  for (const std::string &n : *names) {
    bool match = n == legacy ||
                 (n.size() >= suffix.size() &&
                  n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0);
    if (match) {
      list.push_back(os_join(dir, n));
      ++added;
    }
  }
  return added;
}

uint64_t getMsgFileVersion(const std::string &path) {
  std::string name = baseName(path);
  if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0])))
    return 0;
  return std::strtoull(name.c_str(), nullptr, 10);
}

bool msgfile_before(const std::string &a, const std::string &b,
                    const std::optional<std::string> &dir) {
  uint64_t va = getMsgFileVersion(a), vb = getMsgFileVersion(b);
  if (va != vb)
    return va > vb;
  bool ia = inDir(a, dir), ib = inDir(b, dir);
  if (ia != ib)
    return ia;
  return a > b;
}

void msgfile_sortCandidates(std::vector<std::string> &list) {
  auto dir = installDir();
  std::stable_sort(list.begin(), list.end(),
                   [&](const std::string &a, const std::string &b) {
                     return msgfile_before(a, b, dir);
                   });
}

// --- finding and loading -------------------------------------------------------

namespace {
bool writeBuiltin(const std::string &path) {
  FILE *fp = std::fopen(path.c_str(), "w");
  if (!fp)
    return false;
  bool ok = std::fwrite(msgs_en_text, 1, msgs_en_size, fp) == msgs_en_size;
  return std::fclose(fp) == 0 && ok;
}
} // namespace

std::string msgfile_builtinPath() {
  static std::string path;
  if (!path.empty() && os_fileExists(path))
    return path;
  if (!path.empty() && writeBuiltin(path))
    return path;
  // First use, or the private directory itself has gone: make a new one.
  auto dir = os_makePrivateTempDir(kCopyTemplate);
  if (!dir)
    return {};
  path = os_join(*dir, std::to_string(msgs_en_version) + msgFileSuffix(MSG_LANG_DEFAULT));
  if (writeBuiltin(path))
    return path;
  path.clear();
  return {};
}

std::vector<std::string> msgfile_search(unsigned lang) {
  std::vector<std::string> list;
  bool found = false;
  if (auto a = zkinstdir(ZKDIR_MESSAGES))
    found = findMsgFiles(*a, lang, list) > 0;
  if (!found) {
    // A tool installed in <dir>/bin finds its files in <dir>/dat.
    std::string exe = os_selfExePath();
    if (!exe.empty()) {
      std::string d = os_dirname(exe);
      while (!d.empty() && (d.back() == '.' || d.back() == '/'))
        d.pop_back();
      if (!d.empty())
        found = findMsgFiles(os_join(os_dirname(d), "dat"), lang, list) > 0;
    }
  }
  if (!found) {
    std::string cwd = os_cwd();
    if (!cwd.empty())
      findMsgFiles(cwd, lang, list);
  }
  return list;
}

namespace {

// Whether path is preferred to the built-in copy whatever random name the
// copy's directory gets; nullopt when that name would decide.
std::optional<bool> beatsBuiltinCopy(const std::string &path,
                                     const std::optional<std::string> &dir) {
  const uint64_t v = getMsgFileVersion(path);
  if (v != msgs_en_version)
    return v > msgs_en_version;
  const std::string_view copy(kCopyPrefix);
  if (dir && !dir->empty() && (copy.starts_with(*dir) || dir->starts_with(copy)))
    return std::nullopt; // the copy may lie inside the installation too
  if (inDir(path, dir))
    return true;
  if (path.compare(0, copy.size(), copy) == 0)
    return std::nullopt;
  return path > copy; // decided before the random part
}

bool holdsBuiltinText(const std::string &path) {
  FILE *fp = std::fopen(path.c_str(), "r");
  if (!fp)
    return false;
  char buf[msgs_en_size + 1];
  const size_t n = std::fread(buf, 1, sizeof buf, fp);
  std::fclose(fp);
  return n == msgs_en_size && std::memcmp(buf, msgs_en_text, n) == 0;
}

} // namespace

bool msgfile_choiceIsWellFormed(const std::vector<std::string> &found) {
  if (found.empty())
    return true;
  const auto dir = installDir();
  const std::string &best =
      *std::min_element(found.begin(), found.end(), [&](const std::string &a, const std::string &b) {
        return msgfile_before(a, b, dir);
      });
  const std::optional<bool> wins = beatsBuiltinCopy(best, dir);
  return wins && (!*wins || holdsBuiltinText(best));
}

std::string msgfile_choose(std::vector<std::string> found) {
  const bool sort = !found.empty();
  std::string builtin = msgfile_builtinPath();
  if (!builtin.empty())
    found.push_back(builtin);
  if (found.empty())
    return {};
  if (sort)
    msgfile_sortCandidates(found);
  return found.front();
}

std::string msg_filename(unsigned lang) { return msgfile_choose(msgfile_search(lang)); }

msg_load msgfile_load(const std::string &path) {
  msg_load r;
  FILE *fp = std::fopen(path.c_str(), "r");
  if (!fp) {
    r.ok = false;
    return r;
  }
  msg_parsed p = msgfile_parse(fp);
  std::fclose(fp);
  r.malformed = std::move(p.malformed);
  r.previous = S().current;
  // Our private copy is the built-in text itself; anything else is merged
  // into it, so the built-in file fixes which numbers exist.
  std::string builtin = msgfile_builtinPath();
  if (builtin.empty() || path != builtin)
    p.table = mergeIntoBuiltin(*p.table);
  install(p.table, path);
  return r;
}

msg_load msgfile_loadIfNewer(const std::string &path) {
  if (!S().current)
    return msgfile_load(path);
  const std::string cur = *S().current;
  uint64_t vr = getMsgFileVersion(path), vc = getMsgFileVersion(cur);
  if (vr < vc)
    return {};
  if (vr > vc)
    return msgfile_load(path);
  auto dir = installDir();
  if (inDir(cur, dir))
    return {};
  if (inDir(path, dir))
    return msgfile_load(path);
  if (cur < path)
    return msgfile_load(path);
  return {};
}

namespace {
msg_load notLoaded() {
  msg_load r;
  r.ok = false;
  return r;
}
} // namespace

msg_load msgfile_loadEdf(const char *path) {
  if (!path || !os_fileExists(path))
    return notLoaded();
  return msgfile_loadIfNewer(path);
}

msg_load msgfile_loadEdfDir(const char *dir) {
  if (!dir || !os_isDir(dir))
    return notLoaded();
  std::vector<std::string> list;
  if (findMsgFiles(dir, MSG_LANG_DEFAULT, list) == 0)
    return {};
  msgfile_sortCandidates(list);
  if (!os_fileExists(list.front()))
    return notLoaded();
  return msgfile_loadIfNewer(list.front());
}

msg_load msgfile_loadChosen(std::vector<std::string> found) {
  std::string path = msgfile_choose(std::move(found));
  if (path.empty() || !os_fileExists(path))
    return {};
  return msgfile_loadIfNewer(path);
}

void msgfile_useBuiltinIfNone() {
  if (!S().primary) {
    auto t = std::make_shared<msg_table>(builtinTable());
    S().primary = t;
    S().text = t;
  }
}

// --- parsing -------------------------------------------------------------------

msg_parsed msgfile_parse(FILE *fp) {
  msg_parsed r;
  auto &table = r.table;
  table = std::make_shared<msg_table>(MSG_MAX_NUMBER + 1, nullptr);
  auto malformed = [&](unsigned line) { r.malformed.push_back({line, errno}); };
  char buf[256]; // a longer line is read in pieces, each taken as a line
  unsigned line = 0;
  while (std::fgets(buf, sizeof buf, fp)) {
    ++line;
    if (buf[0] == '#')
      continue;
    const char *p = buf;
    auto skipBlanks = [&] { while (*p == ' ' || *p == '\t') ++p; };
    auto tokenEnd = [](const char *q) {
      while (*q && *q != ' ' && *q != '\t' && *q != '\n')
        ++q;
      return q;
    };
    skipBlanks();
    // A blank line reads as number 0 with no type behind it, so it is
    // reported like any other line that stops after its number.
    const char *numEnd = tokenEnd(p);
    std::string numTok(p, numEnd);
    // Read as unsigned on purpose: "-3" wraps to a huge number and is refused.
    unsigned long num = std::strtoul(numTok.c_str(), nullptr, 10);
    p = numEnd;
    skipBlanks();
    if (num > MSG_MAX_NUMBER || *p == '\n' || *p == '\0') {
      malformed(line);
      continue;
    }
    S().lastNumber = static_cast<uint32_t>(num);
    msg_entry e;
    e.number = static_cast<uint32_t>(num);
    const char *typeEnd = tokenEnd(p);
    bool badType = false;
    switch (std::toupper(static_cast<unsigned char>(*p))) {
    case 'F': e.kind = MSG_FATAL; break;
    case 'E': e.kind = MSG_ERROR; break;
    case 'M': e.kind = MSG_MESSAGE; break;
    default:
      if (std::isdigit(static_cast<unsigned char>(*p)) || *p == '-') {
        e.kind = MSG_WARNING;
        long lv = std::strtol(std::string(p, typeEnd).c_str(), nullptr, 10);
        e.level = static_cast<int32_t>(std::clamp<long>(lv, INT32_MIN, INT32_MAX));
      } else {
        badType = true; // still stored, as an error
        e.kind = MSG_ERROR;
      }
    }
    // The text starts after the one blank or tab that ends the type.
    const char *text = (*typeEnd == ' ' || *typeEnd == '\t') ? typeEnd + 1 : typeEnd;
    size_t len = std::strcspn(text, "\n");
    if (len == 0) {
      malformed(line);
      continue;
    }
    if (badType)
      malformed(line);
    e.text.assign(text, len);
    (*table)[num] = newEntry(std::move(e));
  }
  return r;
}

uint32_t msgfile_lastNumber() { return S().lastNumber; }

bool msgfile_sameConversions(const char *loaded, const char *builtin) {
  return msgconv_read(loaded).sameArguments(msgconv_read(builtin));
}

// --- lookup --------------------------------------------------------------------

msg_info msgfile_lookup(unsigned num) {
  msg_info r{MSG_ERROR, num, 0, msgfile_noDescription};
  const msg_table *p = S().primary.get();
  if (p && num < p->size() && (*p)[num]) {
    const msg_entry *e = (*p)[num];
    r.kind = e->kind;
    r.level = e->level;
    r.text = e->text.c_str();
    const msg_table *t = S().text.get();
    if (t && num < t->size() && (*t)[num])
      r.text = (*t)[num]->text.c_str();
  }
  return r;
}

const msg_table *msgfile_primary() { return S().primary.get(); }

const char *msgfile_currentPath() {
  return S().current ? S().current->c_str() : nullptr;
}

void msgfile_resetForTests() {
  S().primary.reset();
  S().text.reset();
  S().current.reset();
  S().lastNumber = 0;
}

void msgfile_setInstallDirForTests(std::optional<std::optional<std::string>> dir) {
  S().installOverride = std::move(dir);
}
