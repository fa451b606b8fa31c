// Placeholder: the family is not built yet, so no text is claimed.
#include "romweld/options.h"

#include "romweld/args.h"

int parseFILL(romweld_arg *) { return MATCH_NONE; }
bool doFILL(romweld_arg *) { return true; }
