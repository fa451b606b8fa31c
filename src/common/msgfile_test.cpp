// Message description files: parsing, conversion checks, candidate search
// and ordering, load-if-newer, and the primary/text table split.
#include "common/msgfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/alert.h"
#include "common/osdep.h"

namespace {

std::vector<std::string> lines;
void capture(const char *line) { lines.emplace_back(line); }

// Each test runs in a fresh empty directory, so the current-directory search
// sees only the files the test writes.
class MsgFile : public ::testing::Test {
protected:
  std::string oldCwd, dir;
  void SetUp() override {
    oldCwd = os_cwd();
    char tmpl[] = "/tmp/msgfile_testXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
    ASSERT_EQ(chdir(dir.c_str()), 0);
    msgfile_setInstallDirForTests(std::optional<std::string>());
    alert_resetForTests();
    alert_setSink(capture);
    lines.clear();
  }
  void TearDown() override {
    alert_resetForTests();
    msgfile_setInstallDirForTests(std::nullopt);
    EXPECT_EQ(chdir(oldCwd.c_str()), 0);
    EXPECT_EQ(std::system(("rm -rf " + dir).c_str()), 0);
  }
  std::string write(const std::string &name, const std::string &text) {
    std::string path = os_join(dir, name);
    std::ofstream(path) << text;
    return path;
  }
};

msg_parsed parseText(const std::string &text) {
  FILE *fp = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  errno = 0;
  msg_parsed p = msgfile_parse(fp);
  std::fclose(fp);
  return p;
}

std::vector<unsigned> badLines(const msg_parsed &p) {
  std::vector<unsigned> r;
  for (const msg_badLine &b : p.malformed)
    r.push_back(b.line);
  return r;
}

// Every entry as "number kind level text|", kinds by their first letter.
std::string dump(const msg_table &t) {
  std::string s;
  for (const msg_entry *e : t)
    if (e)
      s += std::to_string(e->number) + "FMEWS"[e->kind] + std::to_string(e->level) + " " +
           e->text + "|";
  return s;
}

TEST_F(MsgFile, LineFormat) {
  msg_parsed p = parseText("# comment\n"
                     "\n"
                     " \t\n"
                     "12 E some error %s\n"
                     "13\tm\tmessage\twith tabs\n"
                     "14 -3 warning\n"
                     "15 f  two blanks\n"
                     "20001 E too big\n"
                     "-3 E negative\n"
                     "16 E\n"
                     "17\n"
                     "18 X unknown type\n"
                     "12 8 replaced\n"
                     "99999999999999999999 E overflows\n");
  // A later line replaces an earlier one; only one delimiter is taken before
  // the text; an unknown type is malformed and still stored, as an error.
  EXPECT_EQ(dump(*p.table), "12W8 replaced|13M0 message\twith tabs|14W-3 warning|15F0  two blanks|"
                           "18E0 unknown type|");
  EXPECT_EQ(msgfile_lastNumber(), 12u);
  EXPECT_EQ(badLines(p), (std::vector<unsigned>{2, 3, 8, 9, 10, 11, 12, 14}));
  // A "%m" in the report shows errno as the bad line left it.
  EXPECT_EQ(p.malformed.back().err, ERANGE);
  EXPECT_TRUE(lines.empty()); // parsing reports nothing itself
}

TEST_F(MsgFile, LongLinesAreReadInPieces) {
  msg_parsed p = parseText("30 E " + std::string(300, 'x') + "\n31 E next\n");
  EXPECT_EQ(dump(*p.table), "30E0 " + std::string(255 - 5, 'x') + "|31E0 next|");
  // The rest of the long line ("xxx...") is a line of its own: number 0,
  // unknown type, so it is malformed.
  EXPECT_EQ(badLines(p), std::vector<unsigned>{2});
}

TEST_F(MsgFile, ConversionComparison) {
  const std::tuple<const char *, const char *, bool> cases[] = { // loaded, built-in, same
      {"unbekannte Option \"%s\"", "unknown option \"%s\"", true},
      {"%-20s|%.3s", "%s %s", true},
      {"%i", "%d", true},
      {"%x %%", "%u", true},
      {"%s %m", "%s", true},
      {"%s%s", "%s", false},
      {"", "%s", false},
      {"%d", "%s", false},
      {"%ld", "%d", false},
      {"%*d", "%d", false},
      {"%1$s", "%s", false},
      {"%99999999s", "%s", false},
      {"%.99999999s", "%s", false},
      {"abc %", "abc", false},
      {"%y", "", false},
      {"%n", "", false},
  };
  for (auto [loaded, builtin, same] : cases)
    EXPECT_EQ(msgfile_sameConversions(loaded, builtin), same) << loaded << " vs " << builtin;
  std::string many;
  for (int i = 0; i < 300; ++i)
    many += "%s";
  EXPECT_FALSE(msgfile_sameConversions(many.c_str(), "%s"));
}

TEST_F(MsgFile, BuiltinTableIsWellFormed) {
  msg_parsed p = parseText(std::string(msgs_en_text, msgs_en_size));
  EXPECT_TRUE(p.malformed.empty());
  unsigned count = 0, prev = 0;
  for (const msg_entry *e : *p.table) {
    if (!e)
      continue;
    ++count;
    EXPECT_GT(e->number, prev);
    prev = e->number;
    EXPECT_TRUE(msgfile_sameConversions(e->text.c_str(), e->text.c_str())) << e->number;
    // The checked entry alert<N> reads this text at compile time.
    EXPECT_EQ(msgs_enText(e->number), e->text) << e->number;
  }
  EXPECT_EQ(count, 68u); // messages 1-5 and the tool's table
}

// The names a search accepts are in FindMsgFiles.
TEST_F(MsgFile, VersionFromTheFileName) {
  const std::pair<const char *, uint64_t> cases[] = {
      {"/a/20220703182018_en.msgs", 20220703182018ULL}, {"/a/1_en.msgs", 1}, {"en_msgs.txt", 0},
      {"/9dir/x_en.msgs", 0}, {"/a/99999999999999_en.msgs", 99999999999999ULL}};
  for (auto [path, version] : cases)
    EXPECT_EQ(getMsgFileVersion(path), version) << path;
}

TEST_F(MsgFile, CandidateOrdering) {
  std::optional<std::string> inst = "/opt/zk";
  EXPECT_TRUE(msgfile_before("/x/2_en.msgs", "/opt/zk/1_en.msgs", inst));
  EXPECT_TRUE(msgfile_before("/opt/zk/5_en.msgs", "/z/5_en.msgs", inst));
  EXPECT_FALSE(msgfile_before("/z/5_en.msgs", "/opt/zk/5_en.msgs", inst));
  EXPECT_TRUE(msgfile_before("/z/5_en.msgs", "/a/5_en.msgs", std::nullopt));
  EXPECT_FALSE(msgfile_before("/a/5_en.msgs", "/a/5_en.msgs", inst));
}

TEST_F(MsgFile, FindMsgFiles) {
  write("en_msgs.txt", "");
  write("3_en.msgs", "");
  write("3_de.msgs", "");
  write("en_msgs.txt.bak", "");
  std::vector<std::string> list{"keep"};
  EXPECT_EQ(findMsgFiles(dir, 255, list), 2u);
  std::sort(list.begin() + 1, list.end());
  EXPECT_EQ(list, (std::vector<std::string>{"keep", dir + "/3_en.msgs", dir + "/en_msgs.txt"}));
  EXPECT_EQ(findMsgFiles(dir + "/missing", 255, list), 0u);
}

// Older files and the unversioned legacy name lose to the built-in copy (a
// newer file wins, with its texts and kinds: messages.test).
TEST_F(MsgFile, CurrentDirectoryCandidates) {
  write("1_en.msgs", "168 E old %s\n");
  write("en_msgs.txt", "168 E legacy %s\n");
  EXPECT_EQ(msg_filename(255), msgfile_builtinPath());
  alert(168, "-x");
  EXPECT_EQ(lines, std::vector<std::string>{"(168) unknown option \"-x\"\n"});
}

// Loading may wait for the first message only when the file it would take
// is known to have no malformed line: the built-in copy, or a file that
// holds the built-in text (the installed site file).
TEST_F(MsgFile, ChoiceKnownWellFormed) {
  const std::string builtin(msgs_en_text, msgs_en_size);
  const std::string site = "inst/" + std::to_string(msgs_en_version) + "_en.msgs";
  ASSERT_EQ(mkdir((dir + "/inst").c_str(), 0700), 0);
  msgfile_setInstallDirForTests(dir + "/inst");
  const std::tuple<std::string, std::string, bool> cases[] = { // file, text, known
      {"1_en.msgs", "bad\n", true}, // older: the built-in copy wins
      {site, builtin, true},
      {site, builtin + "bad\n", false},
      {"99999999999999_en.msgs", "168 E neu %s\n", false},
  };
  for (const auto &[name, text, known] : cases) {
    std::string path = write(name, text);
    EXPECT_EQ(msgfile_choiceIsWellFormed({path}), known) << name;
    EXPECT_EQ(msgfile_choiceIsWellFormed({dir + "/0_en.msgs", path}), known) << name;
    unlink(path.c_str());
  }
  EXPECT_TRUE(msgfile_choiceIsWellFormed({}));
}

TEST_F(MsgFile, BuiltinCopyIsRewrittenWhenRemoved) {
  std::string p = msgfile_builtinPath();
  ASSERT_FALSE(p.empty());
  EXPECT_EQ(p.substr(0, 7), "/tmp/zk");
  EXPECT_EQ(p.substr(p.size() - 23), "/20220703182018_en.msgs");
  ASSERT_EQ(unlink(p.c_str()), 0);
  EXPECT_EQ(msgfile_builtinPath(), p);
  EXPECT_TRUE(os_isRegular(p));
}

// A loaded file changes texts; kinds come from the file loaded first (here
// the built-in copy: 168 stays an error), and the built-in file fixes the
// numbers, so 9000 stays undescribed. Malformed lines are reported naming
// the file that was current before.
TEST_F(MsgFile, EdfOlderAndNewer) {
  std::string older = write("20000101000000_en.msgs", "168 E older %s\n");
  std::string newer = write("20300101000000_en.msgs",
                            "168 5 newer %s\n1032 M hilfe\n9000 E only in this file\n");
  std::string newest = write("20400101000000_en.msgs", "168 E newest %s\nbad\n");
  ASSERT_EQ(chdir("/"), 0); // keep them out of the search
  alert_resetForTests();
  alert_setSink(capture);
  EXPECT_FALSE(alert_openEdf(nullptr));
  EXPECT_FALSE(alert_openEdf((dir + "/missing_en.msgs").c_str()));
  EXPECT_TRUE(alert_openEdf(older.c_str())); // older than the built-in: no effect
  alert(168, "a");
  EXPECT_TRUE(alert_openEdf(newer.c_str()));
  alert(168, "b");
  alert(1032);
  EXPECT_TRUE(alert_openEdf(newest.c_str()));
  EXPECT_TRUE(alert_openEdf(newer.c_str())); // never over a newer one
  alert(168, "c");
  EXPECT_EQ(lines, (std::vector<std::string>{"(168) unknown option \"a\"\n",
                                             "(168) newer b\n", "hilfe\n",
                                             "Malformed error information on line 2, in file " +
                                                 newer + "\n\n",
                                             "(168) newest c\n"}));
  EXPECT_STREQ(msgfile_lookup(9000).text, msgfile_noDescription);
}

TEST_F(MsgFile, EdfDirectory) {
  EXPECT_FALSE(alert_openEdfDir(nullptr));
  EXPECT_FALSE(alert_openEdfDir((dir + "/none").c_str()));
  ASSERT_EQ(mkdir((dir + "/d").c_str(), 0700), 0);
  EXPECT_TRUE(alert_openEdfDir((dir + "/d").c_str())); // empty: no failure
  write("d/20300101000000_en.msgs", "168 E two %s\n");
  write("d/20350101000000_en.msgs", "168 E three %s\n");
  EXPECT_TRUE(alert_openEdfDir((dir + "/d").c_str()));
  alert(168, "x");
  EXPECT_EQ(lines, std::vector<std::string>{"(168) three x\n"});
}

// A loaded text whose conversions differ from the built-in one's is never
// used (which ones differ is ConversionComparison), message 1 included: the
// service formats its text with the error count itself.
TEST_F(MsgFile, HostileTextsFallBackToBuiltin) {
  write("99999999999999_en.msgs", "1 M %s%s%s%n\n"
                                  "168 E %99999999s\n"
                                  "1033 M translated\n");
  alert(168, "-x");
  alert(1033);
  EXPECT_EQ(lines, (std::vector<std::string>{"(168) unknown option \"-x\"\n", "translated\n"}));
  EXPECT_STREQ(msgfile_lookup(1).text, "too many errors (%u)");
}

TEST_F(MsgFile, UnreadableCandidateIsSkipped) {
  std::string p = write("99999999999999_en.msgs", "168 E x %s\n");
  chmod(p.c_str(), 0);
  if (access(p.c_str(), R_OK) == 0)
    GTEST_SKIP() << "running with privileges that read anything";
  alert(168, "-x");
  EXPECT_EQ(lines, std::vector<std::string>{"(168) unknown option \"-x\"\n"});
}

} // namespace
