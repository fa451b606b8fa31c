// Error records drained into an option's messages. A budget refusal, what
// would not fit and then message 296, is in test/cli/documents.test.
#include "romweld/drain.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "image/hex_errno.h"
#include "romweld/args.h"
#include "romweld/testutil.h"

namespace {

using optest::whole;

struct Drain : optest::OptionTest {
  void SetUp() override {
    OptionTest::SetUp();
    self.str = "+self.hex";
    owner.str = "owner.hex";
  }
  romweld_arg self, owner;
};

// The check behind drain_error and drain_warning: a row the compiler refuses
// (which conversion takes which type: msgconv_test.cpp).
constexpr drain_field kAddr[] = {DF_ADDR};
static_assert(!drain_detail::textFits("at %lX: %m", kAddr, 1), "no system error text");
static_assert(!drain_detail::textFits("at %lX in %s", kAddr, 1), "a conversion without field");

constexpr drain_row kRows[] = {
    drain_error(ECLASH, "0x%lX in %s (%d%%)", DF_ADDR, DF_PATH, DF_VALUE),
    drain_warning(EUNKNOWNREC, "line %u type %02X", DF_NUM, DF_NUM2),
    drain_message<962, DF_ADDR_H, DF_OWNER, DF_ARG>(ECLOBBERED),
    drain_internal(ENULL),
};

TEST_F(Drain, EachRecordBecomesItsRowWithItsTypedFields) {
  struct Case {
    const char *name;
    void (*record)(const romweld_arg *owner);
    std::vector<std::string> lines;
    bool ok;
  };
  const Case cases[] = {
      {"an address above 32 bits, a literal percent and a negative value",
       [](const romweld_arg *) { hex_setAddrError(ECLASH, 0x123456789ABCDEF0); },
       {"(1600) \"+self.hex\" argument : 0x123456789ABCDEF0 in in.hex (-8%)"},
       false},
      {"warnings and numbered messages let the operation go on",
       [](const romweld_arg *o) {
         hex_setUnknownRecord(7, 10);
         hex_setClobbered(0x10000000F, o);
       },
       {"(1601) \"+self.hex\" argument : line 7 type 0A (warning)",
        "(962) forced data conflict at address 10000000Fh between owner.hex and +self.hex "
        "(warning)"},
       true},
      {"a byte without an owner", [](const romweld_arg *) { hex_setClobbered(0, nullptr); },
       {"(962) forced data conflict at address 0h between  and +self.hex (warning)"}, true},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    whole.clear();
    hex_clearErrors();
    c.record(&owner);
    EXPECT_EQ(drain_errors(kRows, {&self, "in.hex", -8}), c.ok);
    EXPECT_EQ(whole, c.lines);
  }
}

TEST_F(Drain, RecordsPastTheBoundAreAnnounced) {
  // Failing records past the bound: the note is an error.
  set_maxerrors(HEX_ERRORS_KEPT + 10);
  for (uint32_t i = 0; i < HEX_ERRORS_KEPT + 2; ++i)
    hex_setAddrError(ECLASH, i);
  EXPECT_FALSE(drain_errors(kRows, {&self, "in.hex"}));
  ASSERT_EQ(whole.size(), HEX_ERRORS_KEPT + 1u);
  EXPECT_EQ(whole.back(), "(1600) \"+self.hex\" argument : 2 more problems were found but not "
                            "listed");

  // Warnings past the bound: the note is a warning and the operation goes on.
  hex_clearErrors();
  whole.clear();
  alert_disable("962"); // keep the ten thousand kept warnings quiet
  for (uint32_t i = 0; i < HEX_ERRORS_KEPT + 3; ++i)
    hex_setClobbered(i, &owner);
  EXPECT_TRUE(drain_errors(kRows, {&self}));
  EXPECT_EQ(whole, std::vector<std::string>{
                         "(1601) \"+self.hex\" argument : 3 more problems were found but not "
                         "listed (warning)"});
}

// A code the table lists as one the operation cannot meet, or does not
// list at all, is never dropped: it ends the tool, naming the code.
TEST_F(Drain, ACodeTheOperationCannotMeetEndsTheToolNamingIt) {
  for (auto [code, name] : {std::pair{uint32_t(ENULL), "ENULL \\(code 3\\)"},
                            std::pair{uint32_t(EARG), "EARG \\(code 5\\)"}}) {
    SCOPED_TRACE(code);
    EXPECT_EXIT(
        {
          alert_setSink(nullptr);
          hex_setError(code);
          (void)drain_errors(kRows, {&self});
        },
        testing::ExitedWithCode(1), std::string("\\(5\\) internal error: .*") + name);
  }
}

} // namespace
