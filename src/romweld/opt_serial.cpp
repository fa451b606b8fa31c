// Placeholder: the family is not built yet, so no text is claimed.
#include "romweld/options.h"

#include "romweld/args.h"

int parseSERIAL(romweld_arg *) { return MATCH_NONE; }
bool doSERIAL(romweld_arg *) { return true; }

int parseSTRING(romweld_arg *) { return MATCH_NONE; }
bool doSTRING(romweld_arg *) { return true; }
