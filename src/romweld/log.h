// The log file (-LOGFILE): its lines, all written through log_print, its
// opening and closing sections, and the sections the run adds while it
// goes on. The memory usage and the map cover the log's extents
// (romweld.log) and name each byte's owner from the image's notes; the
// trailing-code cells of checksums and strings come from their records.
// The stream is romweld.log.fp, opened by the pipeline before any option
// runs; without a log every call here does nothing.
#pragma once

#include <cstddef>

bool log_isOpen();

// The output paths of every log line: formatted, and as it stands (for
// the map's rows, which are many).
void log_print(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void log_write(const char *text, size_t n);

// The opening sections (title and command-line arguments), written when
// the log is opened, and the closing ones (memory usage, size, checksum
// reports, hex memory map), written after the output.
void log_writeOpening();
void log_writeClosing();

// Heads the find, replace and delete results: written before the first
// search's results and never again in the run (romweld.log.findSection).
void log_findSection();
