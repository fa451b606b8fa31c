#include "cmdline.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/alert.h"

namespace {

struct fileId {
  dev_t dev;
  ino_t ino;
  bool operator==(const fileId &) const = default;
};

struct builder {
  std::string programPath;
  std::vector<std::string> out;
  std::vector<fileId> open; // command files being expanded, outermost first
  bool complete = true;     // every command file gave all of its words

  void add(const std::string &arg);
  bool expand(const std::string &arg);
};

// False on a read error, or when the text grows past the command-file
// limit (a stream whose size is not known beforehand: a pipe, a terminal).
bool readAll(FILE *fp, std::string &text, const std::string &prompt) {
  // A terminal gets a prompt per line; a command file never is one.
  bool tty = isatty(fileno(fp));
  char buf[4096];
  if (tty) {
    std::printf("%s> ", prompt.c_str());
    std::fflush(stdout);
  }
  while (std::fgets(buf, sizeof buf, fp)) {
    text += buf;
    if (text.size() > CMDLINE_MAX_FILE_BYTES) {
      errno = EFBIG;
      return false;
    }
    if (tty && !text.empty() && text.back() == '\n') {
      std::printf("%s> ", prompt.c_str());
      std::fflush(stdout);
    }
  }
  return !std::ferror(fp);
}

// Replaces "@file" by the words of that file. False when the argument is to
// be kept as it stands (no such file, not readable).
bool builder::expand(const std::string &arg) {
  const std::string path = arg.substr(1);
  struct stat st;
  if (stat(path.c_str(), &st) != 0 || S_ISDIR(st.st_mode))
    return false;
  FILE *fp = std::fopen(path.c_str(), "r");
  if (!fp)
    return false;
  fileId id{st.st_dev, st.st_ino};
  for (const fileId &o : open) {
    if (o == id) {
      std::fclose(fp);
      alert<1600>(arg.c_str(), "command file includes itself");
      complete = false;
      return true;
    }
  }
  if (open.size() >= CMDLINE_MAX_DEPTH) {
    std::fclose(fp);
    alert<1600>(arg.c_str(), "command files nested more than 16 deep");
    complete = false;
    return true;
  }
  if (uint64_t(st.st_size) > CMDLINE_MAX_FILE_BYTES) {
    std::fclose(fp);
    alert<1600>(arg.c_str(), "command file is larger than 1 MiB");
    complete = false;
    return true;
  }
  std::string text;
  const bool read = readAll(fp, text, programPath);
  const int readErrno = errno;
  std::fclose(fp);
  if (!read) {
    // Part of a command file would silently shorten the argument list.
    alert<1600>(arg.c_str(),
                readErrno == EFBIG
                    ? "command file is larger than 1 MiB"
                    : alert_format("read error in command file (%s)", std::strerror(readErrno))
                          .c_str());
    complete = false;
    return true;
  }
  open.push_back(id);
  for (const std::string &w : cmdline_splitWords(text))
    add(w);
  open.pop_back();
  return true;
}

void builder::add(const std::string &arg) {
  if (arg.empty())
    return;
  if (arg.size() > 1 && arg[0] == '@' && expand(arg))
    return;
  if (arg[0] == '@') {
    out.push_back(arg); // kept exactly as given, no escape processing
    return;
  }
  // "--zkdebug..." is kept like any other argument; tracing is not built.
  out.push_back(cmdline_unescape(arg));
}

} // namespace

std::string cmdline_unescape(const std::string &arg) {
  std::string r;
  r.reserve(arg.size());
  for (size_t i = 0; i < arg.size(); ++i) {
    char next = i + 1 < arg.size() ? arg[i + 1] : '\0';
    if (arg[i] == '\\' && (next == ' ' || next == '"' || next == '\'' || next == '\\')) {
      r += next;
      ++i;
    } else {
      r += arg[i];
    }
  }
  return r;
}

std::vector<std::string> cmdline_splitWords(const std::string &text) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false, tooLong = false;
  char quote = '\0';
  auto put = [&](char c) {
    if (word.size() < CMDLINE_MAX_WORD)
      word += c;
    else
      tooLong = true;
  };
  auto finish = [&] {
    if (inWord) {
      if (tooLong)
        alert<917>();
      words.push_back(std::move(word));
    }
    word.clear();
    inWord = tooLong = false;
  };
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    char next = i + 1 < text.size() ? text[i + 1] : '\0';
    if (c == '\\' && (next == '"' || next == '\'' || next == '\\')) {
      inWord = true;
      put(next);
      ++i;
    } else if (quote) {
      if (c == quote)
        quote = '\0';
      else
        put(c);
    } else if (c == '"' || c == '\'') {
      quote = c;
      inWord = true;
    } else if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      finish();
    } else {
      inWord = true;
      put(c);
    }
  }
  finish();
  return words;
}

std::vector<std::string> cmdline_build(int argc, const char *const *argv, bool *complete) {
  builder b;
  b.programPath = argc > 0 && argv[0] ? argv[0] : "romweld";
  for (int i = 1; i < argc; ++i)
    if (argv[i])
      b.add(argv[i]);
  if (complete)
    *complete = b.complete;
  return std::move(b.out);
}
