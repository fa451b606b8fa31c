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
#include "common/osdep.h"
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

// What the scan over the arguments gathers for the rest of the run.
struct scan {
  const char *programPath;
  std::vector<std::string> handedOn; // for the argument table
  int warnLevel = 0;                 // the last -w wins
};

// A global option: the text an argument is compared with (ignoring case),
// whether it need only begin with it, and what taking it does.
struct globalRule {
  const char *text;
  bool prefix;
  void (*take)(const globalRule &, const std::string &arg, scan &);
};

// The value behind "--opt=", or null when no '=' and value follow.
const char *valueOf(const globalRule &r, const std::string &arg) {
  const size_t n = std::strlen(r.text);
  return hasValue(arg, n) ? arg.c_str() + n + 1 : nullptr;
}

void takeEdf(const globalRule &r, const std::string &arg, scan &) {
  if (const char *path = valueOf(r, arg)) {
    if (!alert_openEdf(path))
      alert<1600>(arg.c_str(), "could not open error description file");
  } else {
    malformed(arg);
  }
}

// Debug tracing is not built; the option is accepted and ignored.
void takeDebug(const globalRule &, const std::string &, scan &) {}

void takeVersion(const globalRule &, const std::string &, scan &) {
  version_print();
  std::exit(usage_flushStdout() ? 0 : 1);
}

void takeHelp(const globalRule &, const std::string &arg, scan &sc) {
  printHelp();
  sc.handedOn.push_back(arg); // the argument table's help follows
}

void takeHelpFor(const globalRule &r, const std::string &arg, scan &sc) {
  const char *s = arg.c_str() + std::strlen(r.text);
  if (const globalOption *o = findGlobalOption(s + std::strspn(s, "-")))
    printUsage(*o);
  else
    sc.handedOn.push_back(arg);
}

void takeDisable(const globalRule &r, const std::string &arg, scan &) {
  if (const char *list = valueOf(r, arg))
    alert_disable(list);
  else
    malformed(arg);
}

void takeErrorLimit(const globalRule &r, const std::string &arg, scan &) {
  if (!valueOf(r, arg)) {
    malformed(arg);
    return;
  }
  // Intended: the conversion starts at the '=' itself and stops there, so
  // every "--emax=N" sets the error limit to 0.
  const char *eq = arg.c_str() + std::strlen(r.text);
  set_maxerrors(static_cast<unsigned>(std::strtol(eq, nullptr, 10)));
}

void takeWarnLevel(const globalRule &r, const std::string &arg, scan &sc) {
  const char *rest = arg.c_str() + std::strlen(r.text);
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
    alert<168>(sc.programPath);
  sc.warnLevel = static_cast<int>(level);
}

void takeTemplateStyle(const globalRule &, const std::string &, scan &) {
  alert_setTemplateStyle(1);
}

// Tried in this order; the first that matches takes the argument, so a
// bare "-help=" gives the banner like "-help" before the prefix row would
// look for an option named by nothing. Arguments no row takes are handed
// on.
const globalRule globalRules[] = {
    {"--edf", true, takeEdf},
    {"--zkdebug=", true, takeDebug},
    {"--ver", false, takeVersion},
    {"-help", false, takeHelp},
    {"-help=", false, takeHelp},
    {"-help=", true, takeHelpFor},
    {"--disl", true, takeDisable},
    {"--emax", true, takeErrorLimit},
    {"--msgdisable", true, takeDisable},
    {"-w", true, takeWarnLevel},
    {"-e", true, takeTemplateStyle},
};

const globalRule *findRule(const std::string &arg) {
  for (const globalRule &r : globalRules)
    if (r.prefix ? startsWith(arg, r.text) : equals(arg, r.text))
      return &r;
  return nullptr;
}

} // namespace

int main(int argc, char **argv) {
  alert_catchOutOfMemory();
  bool complete = true;
  std::vector<std::string> args = cmdline_build(argc, argv, &complete);

  // Legacy mode is not part of this build: its switch is an unknown option.
  for (const std::string &a : args) {
    if (equals(a, "--legacy")) {
      alert<168>(a.c_str());
      return 1;
    }
  }

  // From here on an interrupt ends the run with status 1 and removes its
  // temporaries, whether or not it has made any yet.
  os_catchEndSignals();
  alert_start();
  scan sc{argc > 0 && argv[0] ? argv[0] : "romweld", {}, 0};
  for (const std::string &arg : args) {
    if (const globalRule *r = findRule(arg))
      r->take(*r, arg, sc);
    else
      sc.handedOn.push_back(arg);
  }
  alert_setWarnLevel(sc.warnLevel);

  // Every other argument becomes an argument record; a run with any
  // unrecognised or malformed argument, or any error so far, reads no file.
  // A command file that was not expanded whole fails the run whatever kind
  // a message file gives message 1600.
  if (!args_addList(sc.handedOn) || alert_errorReached() || !complete) {
    usage_flushStdout(); // the usage block of a malformed option
    return 1;
  }
  // An error that did not stop the run (a message file may make an error
  // of a message that is fatal in the built-in file) still fails it.
  const bool ok = process(1);
  return ok && !alert_errorReached() ? 0 : 1;
}
