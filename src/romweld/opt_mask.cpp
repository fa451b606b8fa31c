// Placeholder: the family is not built yet, so no text is claimed.
#include "romweld/options.h"

#include "romweld/args.h"

int parseMASK(romweld_arg *) { return MATCH_NONE; }
bool doMASK(romweld_arg *) { return true; }
