// Message service: every diagnostic of the tool is a numbered message whose
// kind (fatal, error, warning with a level, message) and printf-style text
// come from the message description file (msgfile.h). The service filters
// by warning threshold and per-message overrides, counts errors and
// warnings, ends the process on a fatal message or past the error limit,
// and prints one line per message on standard error in plain or template
// style. Process-wide, single-threaded state; initialised lazily on first use.
// The message tables are the message file layer's (msgfile.h): the service
// asks it for a message's kind and text and reports what its loads met.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

#include "common/msgconv.h"
#include "common/msgs_en.h"

// Report message `num` with the printf arguments its text expects.
// Returns 1 when a line was printed, 0 when suppressed or filtered.
// Does not return for a fatal message or when the error limit is exceeded.
int alert(unsigned num, ...);
int valert(unsigned num, va_list ap);

// The checked entry for a constant message number, used by every caller
// outside this service: alert<962>(where, owner, arg). The compiler reads
// message N's built-in text and refuses the call unless the arguments are
// exactly the ones its conversions consume, with their types (a 64-bit
// address for "%X", a std::string for "%s" are compile errors). A loaded
// message file cannot change that: its texts must consume the same
// arguments as the built-in ones (msgfile.h).
template <unsigned N, class... Args>
int alert(Args... args) {
  static_assert(!msgs_enText(N).empty(), "the built-in message file does not describe N");
  static_assert(msgconv_fits<Args...>(msgs_enText(N)),
                "the arguments do not match the conversions of message N's built-in text");
  return alert(N, args...);
}

// Report with an explicit type ("E", "F", a warning level such as "3" or
// "-2", anything else a message of level 10) and a literal format; no
// per-message override applies.
int alert_typed(unsigned num, const char *type, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

int alert_setWarnLevel(int level);      // returns the previous threshold
unsigned set_maxerrors(unsigned limit); // returns the previous limit
void alert_setTemplateStyle(unsigned on);
void alert_disable(const char *list);   // "--msgdisable=" grammar
bool alert_errorReached();              // the final error test
unsigned alert_errorCount();
unsigned alert_warningCount();

// An output sink that receives each finished line instead of standard
// error (tests and fuzz targets).
using alert_sink = void (*)(const char *line);
void alert_setSink(alert_sink fn);

// Text utilities. alert_format prints into a 4096-byte buffer; a longer
// result is cut and "buffer overflow in vsnprintf" goes to standard error.
std::string alert_format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string alert_vformat(const char *fmt, va_list ap);

// The one path by which the library layers may end the process: fatal
// message 296 "out of memory".
[[noreturn]] void alert_outOfMemory();
// Sends every way memory can run out to alert_outOfMemory: the new-handler,
// and an uncaught std::bad_alloc or std::length_error (a size beyond what
// can be allocated). Any other uncaught exception is an internal error
// reported like a failed assertion. Nothing ends through abort.
void alert_catchOutOfMemory();

// Runs once, on first use of the service that needs a message's kind or
// text: reads ZKC_ERR_FORMAT, ZKC_WARN_FORMAT and ZKC_MSG_FORMAT, then
// loads the English message file (malformed lines as message 3).
void alert_init();
// The program calls this once where its messages begin: the message files
// are looked for now, so a run chooses among the files there at its start
// (not among those it writes itself); the chosen one is loaded now when it
// may report malformed lines, else at the first message. Before it, the
// first message looks for them itself.
void alert_start();
// "--edf=path" and a directory of message files: load-if-newer at once,
// after the English file (msgfile.h); false when nothing could be opened.
bool alert_openEdf(const char *path);
bool alert_openEdfDir(const char *dir);

// Tests and fuzz targets only: fn is called instead of exit(1) when a fatal
// message or the error limit ends the process; it must not return (a
// harness throws from it). Null restores exit(1).
void alert_setExitForTests(void (*fn)(int));

// Tests only: return the whole service (counters, limits, overrides, style,
// message tables) to its state at program start.
void alert_resetForTests();
