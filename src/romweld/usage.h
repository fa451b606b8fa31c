// Usage blocks and help lines, shared by the global options and the
// argument table: the texts hold "%s" where the option's name goes. What is
// printed on standard output is checked to have arrived there.
#pragma once

// " NAME : HELP\n  USAGE: usage\n  Example: example\n" on standard output.
void usage_printBlock(const char *name, const char *help, const char *usage,
                      const char *example);
// "  %-9s : %s\n" on standard output.
void usage_printLine(const char *name, const char *help);
// Flushes standard output. Text that could not all be written is message
// 413 on "stdout" (fatal in the built-in message file) and false.
bool usage_flushStdout();
