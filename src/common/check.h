// Internal consistency checks: ROMWELD_ASSERT(expr) guards programming
// errors, never user input. A failed check reports the expression, the
// source file and the line on standard error and ends the process with
// status 1 through the normal exit path, so the temporary files and the
// private message directory are still removed. The one mechanism for every
// layer; nothing else ends the process on a broken invariant.
#pragma once

[[noreturn]] void check_failed(const char *expr, const char *file, unsigned line);
#define ROMWELD_ASSERT(e) ((e) ? (void)0 : check_failed(#e, __FILE__, __LINE__))
