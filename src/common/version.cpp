#include "common/version.h"

#include <cstdio>

const char *const version_string = "2.40";
const char *const version_buildNumber = "20220703182018";

void version_print() {
  // The version is followed by one blank: the release suffix that would
  // follow it is empty in this build.
  std::printf("\n"
              "Product:\tZK5\n"
              "Component:\tromweld\n"
              "Version:\t%s \n"
              "Build date:\tJul  3 2022\n"
              "Release:\t\n"
              "Build number:\t%s\n"
              "Intel HEX merge and checksum tool\n",
              version_string, version_buildNumber);
}
