// Usage blocks and help lines, shared by the global options and the
// argument table: the texts hold "%s" where the option's name goes.
#pragma once

// " NAME : HELP\n  USAGE: usage\n  Example: example\n" on standard output.
void usage_printBlock(const char *name, const char *help, const char *usage,
                      const char *example);
// "  %-9s : %s\n" on standard output.
void usage_printLine(const char *name, const char *help);
