// Placeholder: the family is not built yet, so no text is claimed.
#include "romweld/options.h"

#include "romweld/args.h"

int parseFIND(romweld_arg *) { return MATCH_NONE; }
bool doFIND(romweld_arg *) { return true; }

int parseREPLACE(romweld_arg *) { return MATCH_NONE; }
bool doREPLACE(romweld_arg *) { return true; }

int parseDELETE(romweld_arg *) { return MATCH_NONE; }
bool doDELETE(romweld_arg *) { return true; }
