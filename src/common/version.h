// The version banner printed by "--ver" and at the head of the help listing.
#pragma once

extern const char *const version_string;     // "2.40"
extern const char *const version_buildNumber; // "20220703182018"

// Prints the banner to standard output.
void version_print();
