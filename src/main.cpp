// Program entry: builds the argument list, rejects the legacy switch (not
// part of this build), consumes the global message options, hands every
// other argument on, and turns the outcome into the exit status.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>
#include <vector>

#include "cmdline.h"
#include "common/alert.h"
#include "common/version.h"
#include "romweld/args.h"
#include "romweld/usage.h"

namespace {

struct globalOption {
  const char *name;
  const char *usage;
  const char *help;
  const char *example;
};

const globalOption globalOptions[] = {
    {"-W", "%slevel[!]",
     "Adjust the sensitivity of warnings, add '!' to stop on warnings", "%s9!"},
    {"+", "%s<argument>",
     "Prepend an argument with '+' to use forced storage ie. Any overlapping "
     "data will be overwritten",
     "%sinput.hex +-SERIAL=1234@1000"},
    {"--EDF", "%s=path",
     "Specify path and filename of the message description file",
     "%s=\"C:\\Program Files\\ZK5\\romweld\\2.40\\dat\\en_msgs.txt\""},
    {"--EMAX", "%s=number",
     "Set the maximum number of error messages before exiting", "%s=8"},
    {"--MSGDISABLE", "%s=message_number[[:(on|off)][,message_number ...]]",
     "Specify a comma-seperated list of messages (advisories, warnings, or "
     "errors) to disable",
     "%s=962,168:off"},
    {"--DISL", "see --MSGDISABLE", "synonym of --MSGDISABLE",
     "see --MSGDISABLE"},
    {"--VER", "%s", "Print version information and quit", "%s"},
};

bool startsWith(const std::string &s, const char *prefix) {
  return strncasecmp(s.c_str(), prefix, std::strlen(prefix)) == 0;
}

bool equals(const std::string &s, const char *word) {
  return strcasecmp(s.c_str(), word) == 0;
}

// The first row whose name, without leading '-' and ',', begins `text`.
const globalOption *findGlobalOption(const char *text) {
  for (const globalOption &o : globalOptions) {
    const char *stripped = o.name + std::strspn(o.name, "-,");
    if (strncasecmp(text, stripped, std::strlen(stripped)) == 0)
      return &o;
  }
  return nullptr;
}

void printUsage(const globalOption &o) {
  usage_printBlock(o.name, o.help, o.usage, o.example);
  usage_flushStdout();
}

void printHelp() {
  version_print();
  // The banner comes before messages 1032 and 1033 on a shared terminal.
  usage_flushStdout();
  alert<1032>();
  alert<1033>();
  for (const globalOption &o : globalOptions)
    usage_printLine(o.name, o.help);
  usage_flushStdout();
}

void malformed(const std::string &arg) {
  alert<1600>(arg.c_str(), "malformed option");
  if (const globalOption *o = findGlobalOption(arg.c_str() + 2))
    printUsage(*o);
}

// "--opt=value": true when character `eq` is '=' and a value follows.
bool hasValue(const std::string &arg, size_t eq) {
  return arg.size() > eq + 1 && arg[eq] == '=';
}

} // namespace

int main(int argc, char **argv) {
  alert_catchOutOfMemory();
  const char *programPath = argc > 0 && argv[0] ? argv[0] : "romweld";
  bool complete = true;
  std::vector<std::string> args = cmdline_build(argc, argv, &complete);

  // Legacy mode is not part of this build: its switch is an unknown option.
  for (const std::string &a : args) {
    if (equals(a, "--legacy")) {
      alert<168>(a.c_str());
      return 1;
    }
  }

  alert_init();
  std::vector<std::string> unconsumed;
  int warnLevel = 0;
  for (const std::string &arg : args) {
    const char *s = arg.c_str();
    if (startsWith(arg, "--edf")) {
      if (!hasValue(arg, 5))
        malformed(arg);
      else if (!alert_openEdf(s + 6))
        alert<1600>(s, "could not open error description file");
    } else if (startsWith(arg, "--zkdebug=")) {
      // Debug tracing is not built; the option is accepted and ignored.
    } else if (equals(arg, "--ver")) {
      version_print();
      std::exit(usage_flushStdout() ? 0 : 1);
    } else if (equals(arg, "-help") || equals(arg, "-help=")) {
      printHelp();
      unconsumed.push_back(arg); // the argument table's help follows
    } else if (startsWith(arg, "-help=")) {
      const char *value = s + 6 + std::strspn(s + 6, "-");
      if (const globalOption *o = findGlobalOption(value))
        printUsage(*o);
      else
        unconsumed.push_back(arg);
    } else if (startsWith(arg, "--disl")) {
      if (hasValue(arg, 6))
        alert_disable(s + 7);
      else
        malformed(arg);
    } else if (startsWith(arg, "--emax")) {
      if (hasValue(arg, 6))
        // Intended: the conversion starts at the '=' itself and stops there,
        // so every "--emax=N" sets the error limit to 0.
        set_maxerrors(static_cast<unsigned>(std::strtol(s + 6, nullptr, 10)));
      else
        malformed(arg);
    } else if (startsWith(arg, "--msgdisable")) {
      if (hasValue(arg, 12))
        alert_disable(s + 13);
      else
        malformed(arg);
    } else if (startsWith(arg, "-w")) {
      const char *rest = s + 2;
      // '!' only selects the template style; warnings never stop the run.
      if (std::strchr(rest, '!'))
        alert_setTemplateStyle(1);
      long level = std::strtol(rest, nullptr, 10);
      if (level > 9)
        level = 9;
      else if (level < -9)
        level = -9;
      // Intended: a level that is not a number names the program path, not
      // the option, in message 168.
      if (level == 0 && rest[0] != '0')
        alert<168>(programPath);
      warnLevel = static_cast<int>(level);
    } else if (startsWith(arg, "-e")) {
      alert_setTemplateStyle(1);
    } else {
      unconsumed.push_back(arg);
    }
  }
  alert_setWarnLevel(warnLevel);

  // Every other argument becomes an argument record; a run with any
  // unrecognised or malformed argument, or any error so far, reads no file.
  // A command file that was not expanded whole fails the run whatever kind
  // a message file gives message 1600.
  if (!args_addList(unconsumed) || alert_errorReached() || !complete) {
    usage_flushStdout(); // the usage block of a malformed option
    return 1;
  }
  // An error that did not stop the run (a message file may make an error
  // of a message that is fatal in the built-in file) still fails it.
  const bool ok = process(1);
  return ok && !alert_errorReached() ? 0 : 1;
}
