// The log file (-LOGFILE): its lines, all written through log_print, and the
// sections the run adds while it goes on. The stream is romweld.log.fp,
// opened by the pipeline before any option runs; without a log every call
// here does nothing.
#pragma once

bool log_isOpen();

// The one output path of every log line.
void log_print(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Heads the find, replace and delete results: written before the first
// search's results and never again in the run (romweld.log.findSection).
void log_findSection();
