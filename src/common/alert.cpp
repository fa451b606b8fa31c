#include "common/alert.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <new>
#include <optional>
#include <stdexcept>
#include <unistd.h>
#include <vector>

#include "common/check.h"
#include "common/msgfile.h"
#include "common/osdep.h"

namespace {

constexpr size_t kTextSize = 512;   // message text, at most 511 characters
constexpr size_t kLineSize = 8192;  // finished line, at most 8191 characters
constexpr size_t kFormatSize = 4096;

struct alert_state {
  bool initStarted = false;
  // The message files alert_start found, kept while loading waits for the
  // first use, so that the choice is the one the run started with.
  std::optional<std::vector<std::string>> found;
  std::string errTemplate = "%f: %l: (%n) %s (error)";
  std::string warnTemplate = "%f: %l: (%n) %s (warning)";
  std::string msgTemplate = "%f: %l: %s";
  unsigned templateStyle = 0;
  int warnThreshold = 0;
  unsigned maxErrors = 20;
  unsigned errors = 0;
  unsigned warnings = 0;
  std::map<unsigned, unsigned> overrides; // message number -> control code
  alert_sink sink = nullptr;
  int savedErrno = 0;
};

alert_state &G() {
  static auto *g = new alert_state;
  return *g;
}

// Appends to a fixed buffer, cutting silently at its end. Used for every
// line so that reporting "out of memory" never needs the heap.
struct bounded {
  char *buf;
  size_t cap;
  size_t len = 0;
  bounded(char *b, size_t c) : buf(b), cap(c) { buf[0] = '\0'; }
  void add(const char *s, size_t n) {
    size_t room = cap - 1 - len;
    if (n > room)
      n = room;
    std::memcpy(buf + len, s, n);
    len += n;
    buf[len] = '\0';
  }
  void add(const char *s) { add(s, std::strlen(s)); }
  void addUnsigned(unsigned long v) {
    char tmp[24];
    int n = std::snprintf(tmp, sizeof tmp, "%lu", v);
    add(tmp, static_cast<size_t>(n));
  }
  bool full() const { return len >= cap - 1; }
};

const char *errnoText(int e) { return std::strerror(e); }

// What the disable list makes of a message: a plain number (or ":on")
// hides a message or warning, ":off" anything but a fatal message.
enum : unsigned { HIDE_QUIET = 1, HIDE_ALL = 5 };

msg_info lookupWithOverride(unsigned num) {
  msg_info m = msgfile_lookup(num);
  const auto &hidden = G().overrides;
  const auto it = hidden.find(num);
  const unsigned how = it == hidden.end() ? 0 : it->second;
  if ((how == HIDE_QUIET && (m.kind == MSG_MESSAGE || m.kind == MSG_WARNING)) ||
      (how == HIDE_ALL && m.kind != MSG_FATAL))
    m.kind = MSG_SUPPRESSED;
  return m;
}

// Step 2 of formatting: "(N) " in plain style for all but messages, then
// the text expanded with the caller's arguments after "%m" was replaced.
void buildText(bounded &out, const msg_info &m, va_list ap) {
  if (!G().templateStyle && m.kind != MSG_MESSAGE) {
    out.add("(");
    out.addUnsigned(m.number);
    out.add(") ");
  }
  char fmtBuf[kLineSize];
  bounded fmt(fmtBuf, sizeof fmtBuf);
  for (const char *p = m.text; *p; ++p) {
    if (p[0] == '%' && p[1] == '%') {
      fmt.add(p, 2);
      ++p;
    } else if (p[0] == '%' && p[1] == 'm') {
      if (G().savedErrno != 0) {
        // The system text is data, not format: double any '%' in it.
        for (const char *q = errnoText(G().savedErrno); *q; ++q)
          fmt.add(*q == '%' ? "%%" : q, *q == '%' ? 2 : 1);
      }
      ++p;
    } else {
      fmt.add(p, 1);
    }
  }
  va_list aq;
  va_copy(aq, ap);
  size_t room = out.cap - out.len;
  int n = std::vsnprintf(out.buf + out.len, room, fmt.buf, aq);
  va_end(aq);
  if (n > 0)
    out.len += static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
  out.buf[out.len] = '\0';
}


void buildLine(bounded &line, const msg_info &m, const char *text) {
  alert_state &g = G();
  if (g.templateStyle) {
    const std::string &tmpl = m.kind == MSG_MESSAGE   ? g.msgTemplate
                              : m.kind == MSG_WARNING ? g.warnTemplate
                                                      : g.errTemplate;
    for (const char *p = tmpl.c_str(); *p && !line.full(); ++p) {
      if (*p != '%' || p[1] == '\0') {
        line.add(p, 1);
        continue;
      }
      char c = *++p;
      switch (c) {
      case 'f':
      case 'l':
      case 'c':
        break; // a message of this tool has no source position
      case 'n': line.addUnsigned(m.number); break;
      case 's': line.add(text); break;
      case 'a': line.add("romweld"); break;
      case 'm': line.add(errnoText(g.savedErrno)); break;
      default:
        line.add(p - 1, 2); // unknown placeholders are kept as written
      }
    }
  } else {
    line.add(text);
    if (m.kind == MSG_WARNING)
      line.add(" (warning)");
  }
}

void (*g_exitForTests)(int) = nullptr;

// Every end of the process that a message causes goes through here, so a
// harness that runs many inputs in one process can take it over.
[[noreturn]] void endProcess() {
  if (g_exitForTests)
    g_exitForTests(1); // does not return when it is a harness's
  std::exit(1);
}

[[noreturn]] void tooManyErrors() {
  // Message 1 goes through the explicit-type report so no override hides it;
  // its text was checked to take one unsigned like the built-in one, which
  // is what the count passed here is.
  static_assert(msgconv_fits<unsigned>(msgs_enText(1)));
  alert_typed(1, "M", msgfile_lookup(1).text, G().errors + 1);
  endProcess();
}

// Filtering, counting and printing shared by every entry point.
int report(msg_info m, bool levelTestAll, va_list ap) {
  alert_state &g = G();
  if (m.kind == MSG_SUPPRESSED)
    return 0;
  if ((m.kind == MSG_WARNING || levelTestAll) && m.level < g.warnThreshold)
    return 0;
  if (m.kind == MSG_ERROR) {
    if (g.errors >= g.maxErrors)
      tooManyErrors();
    ++g.errors;
  } else if (m.kind == MSG_WARNING) {
    ++g.warnings;
  }
  char textBuf[kTextSize];
  bounded text(textBuf, sizeof textBuf);
  buildText(text, m, ap);
  char lineBuf[kLineSize];
  bounded line(lineBuf, sizeof lineBuf);
  buildLine(line, m, text.buf);
  line.add("\n"); // only if there is room
  if (g.sink) {
    g.sink(line.buf);
  } else {
    std::fputs(line.buf, stderr);
    std::fflush(stderr);
  }
  if (m.kind == MSG_FATAL)
    endProcess();
  return 1;
}

int vtyped(unsigned num, const char *type, const char *fmt, va_list ap) {
  G().savedErrno = errno;
  alert_init();
  msg_info m{MSG_MESSAGE, num, 10, fmt ? fmt : ""};
  const char *t = type ? type : "M";
  if ((t[0] >= '0' && t[0] <= '9') || (t[0] == '-' && t[1] >= '0' && t[1] <= '9')) {
    m.kind = MSG_WARNING;
    m.level = static_cast<int32_t>(std::strtol(t, nullptr, 10));
  } else if (t[0] == 'e' || t[0] == 'E') {
    m.kind = MSG_ERROR;
  } else if (t[0] == 'f' || t[0] == 'F') {
    m.kind = MSG_FATAL;
  }
  return report(m, true, ap);
}

// The lines a load could not take, as message 3 naming the file that was
// current before it.
void reportMalformed(const msg_load &r) {
  const char *file = r.previous ? r.previous->c_str() : "(null)";
  for (const msg_badLine &b : r.malformed) {
    errno = b.err; // as it stood when the line was read
    alert_typed(3, "M", "Malformed error information on line %u, in file %s\n", b.line, file);
  }
}

} // namespace

void alert_init() {
  alert_state &g = G();
  if (g.initStarted)
    return;
  g.initStarted = true;
  // A variable that is set, even to "", replaces the default template.
  if (const char *e = std::getenv("ZKC_ERR_FORMAT"))
    g.errTemplate = e;
  if (const char *e = std::getenv("ZKC_WARN_FORMAT"))
    g.warnTemplate = e;
  if (const char *e = std::getenv("ZKC_MSG_FORMAT"))
    g.msgTemplate = e;
  std::vector<std::string> found =
      g.found ? std::move(*g.found) : msgfile_search(MSG_LANG_DEFAULT);
  g.found.reset();
  // A file that cannot be opened leaves the built-in texts in force.
  reportMalformed(msgfile_loadChosen(std::move(found)));
  // Without a writable temporary directory there is no file to load; the
  // built-in texts still apply.
  msgfile_useBuiltinIfNone();
}

void alert_start() {
  alert_state &g = G();
  if (g.initStarted || g.found)
    return;
  g.found = msgfile_search(MSG_LANG_DEFAULT);
  // A file without malformed lines loads silently, so loading it can wait
  // for the first message; one that may have some is loaded now, where its
  // malformed lines have always been reported.
  if (!msgfile_choiceIsWellFormed(*g.found))
    alert_init();
}

bool alert_openEdf(const char *path) {
  alert_init();
  msg_load r = msgfile_loadEdf(path);
  reportMalformed(r);
  return r.ok;
}

bool alert_openEdfDir(const char *dir) {
  alert_init();
  msg_load r = msgfile_loadEdfDir(dir);
  reportMalformed(r);
  return r.ok;
}

int valert(unsigned num, va_list ap) {
  G().savedErrno = errno;
  alert_init();
  return report(lookupWithOverride(num), false, ap);
}

int alert(unsigned num, ...) {
  va_list ap;
  va_start(ap, num);
  int r = valert(num, ap);
  va_end(ap);
  return r;
}

int alert_typed(unsigned num, const char *type, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = vtyped(num, type, fmt, ap);
  va_end(ap);
  return r;
}

int alert_setWarnLevel(int level) {
  int prev = G().warnThreshold;
  G().warnThreshold = level;
  return prev;
}

unsigned set_maxerrors(unsigned limit) {
  unsigned prev = G().maxErrors;
  G().maxErrors = limit;
  return prev;
}

void alert_setTemplateStyle(unsigned on) {
  G().templateStyle = on;
}


void alert_disable(const char *list) {
  if (!list || !*list)
    return;
  alert_state &g = G();
  if (list[0] == '0') {
    // Every message and warning, as the loaded file's kinds say; the rest
    // of the list is ignored.
    alert_init();
    if (const msg_table *t = msgfile_primary())
      for (const msg_entry *e : *t)
        if (e && (e->kind == MSG_MESSAGE || e->kind == MSG_WARNING))
          g.overrides[e->number] = HIDE_QUIET;
    return;
  }
  for (const char *item = list; item;) {
    char *end = nullptr;
    long n = std::strtol(item, &end, 10);
    // Intended: only ":off" may hide an error; a plain number (or ":on")
    // hides a message or warning but never an error.
    g.overrides[static_cast<unsigned>(n)] = std::strncmp(end, ":off", 4) == 0 ? HIDE_ALL : HIDE_QUIET;
    item = std::strchr(item, ',');
    if (item)
      ++item;
  }
}

bool alert_errorReached() {
  return G().errors > 0;
}

unsigned alert_errorCount() { return G().errors; }
unsigned alert_warningCount() { return G().warnings; }

void alert_setSink(alert_sink fn) { G().sink = fn; }

std::string alert_vformat(const char *fmt, va_list ap) {
  char buf[kFormatSize];
  va_list aq;
  va_copy(aq, ap);
  int n = std::vsnprintf(buf, sizeof buf, fmt, aq);
  va_end(aq);
  if (n < 0)
    buf[0] = '\0';
  else if (static_cast<size_t>(n) >= sizeof buf)
    std::fputs("buffer overflow in vsnprintf", stderr);
  return buf;
}

std::string alert_format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string s = alert_vformat(fmt, ap);
  va_end(ap);
  return s;
}

namespace {

// Reporting may itself need memory (a first message loads the message
// file). A second failure must not loop back: it ends the run with a fixed
// line, after removing the run's temporaries.
bool g_reportingOutOfMemory = false;

[[noreturn]] void outOfMemoryAgain() {
  static const char line[] = "(296) out of memory\n";
  if (write(STDERR_FILENO, line, sizeof line - 1) < 0) {
  }
  os_endNow(1);
}

void newHandler() { alert_outOfMemory(); }

[[noreturn]] void onTerminate() {
  if (g_reportingOutOfMemory)
    outOfMemoryAgain(); // whatever reporting threw, memory ran out first
  if (std::exception_ptr e = std::current_exception()) {
    try {
      std::rethrow_exception(e);
    } catch (const std::bad_alloc &) {
      alert_outOfMemory();
    } catch (const std::length_error &) {
      alert_outOfMemory();
    } catch (...) {
    }
  }
  check_failed("no uncaught exception", __FILE__, __LINE__);
}

} // namespace

void alert_outOfMemory() {
  g_reportingOutOfMemory = true;
  std::set_new_handler(outOfMemoryAgain);
  if (G().initStarted && !msgfile_primary()) {
    // Memory ran out while the message file was being loaded: the built-in
    // text, which needs no loading.
    char text[kTextSize];
    const std::string_view t = msgs_enText(296).substr(0, kTextSize - 1);
    std::memcpy(text, t.data(), t.size());
    text[t.size()] = '\0';
    alert_typed(296, "F", "%s", text);
  } else {
    alert<296>();
  }
  endProcess(); // 296 is fatal in the built-in file; a file may not make it less
}

void alert_catchOutOfMemory() {
  // What reporting needs is made before the handler is in place: a failure
  // while it is being made would otherwise re-enter its making from the
  // handler.
  G();
  os_selfExePath();
  std::set_new_handler(newHandler);
  std::set_terminate(onTerminate);
}

void alert_setExitForTests(void (*fn)(int)) { g_exitForTests = fn; }

void alert_resetForTests() {
  alert_state &g = G();
  g = alert_state{};
  msgfile_resetForTests();
}
