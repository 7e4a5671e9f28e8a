#include "vornsupport/support.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(InitialStateTest, ProgramNameIsNull) {
  EXPECT_EQ(gnl_prognam, nullptr);
}

TEST(InitialStateTest, MessageIsEmpty) {
  EXPECT_STREQ(gnl_usrmsg, "");
}

// A command line and what its callback is told: "-x", "-x=ARG" and "N:TEXT", in order.
class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() {
    ctrl.opt_letters = "vxC:D:";
    ctrl.callback = record;
    ctrl.user = this;
    std::snprintf(gnl_usrmsg, GNL_USRMSG_SIZE, "left from before");
  }

  int parse(const std::vector<const char*>& words) {
    std::vector<const char*> argv{"prog"};
    argv.insert(argv.end(), words.begin(), words.end());
    return gnl_cmdlin(static_cast<int>(argv.size()), argv.data(), &ctrl);
  }

  void expect_in_order(const std::vector<const char*>& words,
                       const std::vector<std::string>& expected) {
    EXPECT_EQ(parse(words), 0);
    EXPECT_STREQ(gnl_usrmsg, "");
    EXPECT_EQ(told, expected);
  }

  void expect_malformed(const std::vector<const char*>& words, const std::string& reason) {
    EXPECT_NE(parse(words), 0);
    EXPECT_EQ(gnl_usrmsg, reason);
  }

  _gnl_cmdlin_ctrl ctrl{};
  std::vector<std::string> told;
  std::string reject;  // the record of the word to reject
  int accept_result = 0;

 private:
  static int record(_gnl_cmdlin_ctrl* ctrl, int is_switch, int opt, const char* arg) {
    auto* const test = static_cast<CommandLineTest*>(ctrl->user);
    EXPECT_EQ(ctrl, &test->ctrl);
    test->told.push_back(describe(is_switch, opt, arg));
    return test->told.back() == test->reject ? GNL_REJECTED : test->accept_result;
  }

  static std::string describe(int is_switch, int opt, const char* arg) {
    if (is_switch == 0) return std::to_string(opt) + ":" + arg;
    EXPECT_EQ(is_switch, 1);
    return std::string("-") + static_cast<char>(opt) +
           (arg != nullptr ? std::string("=") + arg : "");
  }
};

TEST_F(CommandLineTest, NoWordsAreInOrder) {
  expect_in_order({}, {});
}

TEST_F(CommandLineTest, TellsOptionsAndParametersInTheOrderOfTheLine) {
  expect_in_order({"one", "-v", "two", "-C", "file", "three"},
                  {"1:one", "-v", "2:two", "-C=file", "3:three"});
}

TEST_F(CommandLineTest, AttachedArgument) {
  expect_in_order({"-Cfile:group"}, {"-C=file:group"});
}

TEST_F(CommandLineTest, ClusterOfLetters) {
  expect_in_order({"-vxv"}, {"-v", "-x", "-v"});
}

TEST_F(CommandLineTest, ClusterEndingInAnOptionWithTheNextWordAsArgument) {
  expect_in_order({"-vC", "file", "more"}, {"-v", "-C=file", "1:more"});
}

TEST_F(CommandLineTest, ClusterEndingInAnOptionWithAttachedArgument) {
  expect_in_order({"-vxCv"}, {"-v", "-x", "-C=v"});
}

TEST_F(CommandLineTest, ArgumentMayLookLikeAnOption) {
  expect_in_order({"-D", "-", "-C", "-v", "-D", "--"}, {"-D=-", "-C=-v", "-D=--"});
}

TEST_F(CommandLineTest, EmptyWordIsAParameterAndAnArgument) {
  expect_in_order({"", "-C", ""}, {"1:", "-C="});
}

TEST_F(CommandLineTest, LoneDashIsAParameter) {
  expect_in_order({"-", "-v"}, {"1:-", "-v"});
}

TEST_F(CommandLineTest, DoubleDashEndsTheOptions) {
  expect_in_order({"-v", "--", "-x", "--", "-"}, {"-v", "1:-x", "2:--", "3:-"});
}

TEST_F(CommandLineTest, LastDeclarationOfALetterCounts) {
  ctrl.opt_letters = "ChD:C:L:";
  expect_in_order({"-C", "file"}, {"-C=file"});
  told.clear();
  ctrl.opt_letters = "x:x";
  expect_in_order({"-x", "word"}, {"-x", "1:word"});
}

TEST_F(CommandLineTest, NullWordEndsTheLine) {
  expect_in_order({"-v", nullptr, "-x"}, {"-v"});
  expect_malformed({"-C", nullptr}, "option -C needs an argument");
}

TEST_F(CommandLineTest, UndeclaredLetterIsMalformed) {
  expect_malformed({"-v", "-q", "-x"}, "unknown option -q");
  EXPECT_EQ(told, std::vector<std::string>{"-v"});
}

TEST_F(CommandLineTest, UndeclaredLetterInAClusterIsMalformed) {
  expect_malformed({"-vqx"}, "unknown option -q");
  EXPECT_EQ(told, std::vector<std::string>{"-v"});
}

TEST_F(CommandLineTest, ColonIsNoOptionLetter) {
  expect_malformed({"-:"}, "unknown option -:");
}

TEST_F(CommandLineTest, LongOptionIsMalformed) {
  expect_malformed({"--verbose"}, "unknown option --verbose");
}

TEST_F(CommandLineTest, WithoutLettersEveryOptionIsMalformed) {
  for (const char* letters : {static_cast<const char*>(nullptr), ""}) {
    ctrl.opt_letters = letters;
    expect_malformed({"-v"}, "unknown option -v");
  }
}

TEST_F(CommandLineTest, MissingArgumentIsMalformed) {
  expect_malformed({"-v", "-C"}, "option -C needs an argument");
  EXPECT_EQ(told, std::vector<std::string>{"-v"});
}

TEST_F(CommandLineTest, RejectedOptionStopsTheParse) {
  reject = "-x";
  expect_malformed({"-v", "-x", "-v"}, "option -x rejected");
  EXPECT_EQ(told, (std::vector<std::string>{"-v", "-x"}));
}

TEST_F(CommandLineTest, RejectedLetterStopsItsCluster) {
  reject = "-x";
  expect_malformed({"-xv"}, "option -x rejected");
  EXPECT_EQ(told, std::vector<std::string>{"-x"});
}

TEST_F(CommandLineTest, RejectedArgumentIsNamed) {
  reject = "-C=file";
  expect_malformed({"-Cfile"}, "option -C rejected: file");
}

TEST_F(CommandLineTest, RejectedParameterStopsTheParse) {
  reject = "2:two";
  expect_malformed({"one", "two", "three"}, "parameter 2 rejected: two");
  EXPECT_EQ(told, (std::vector<std::string>{"1:one", "2:two"}));
}

TEST_F(CommandLineTest, OtherCallbackResultsGoOn) {
  for (const int result : {-1, 1, 2, 4}) {
    accept_result = result;
    told.clear();
    expect_in_order({"-v", "one", "-Cfile"}, {"-v", "1:one", "-C=file"});
  }
}

TEST_F(CommandLineTest, TooFewParametersAreMalformed) {
  ctrl.min_params = 2;
  expect_malformed({"one", "-v"}, "too few parameters, at least 2");
  EXPECT_EQ(told, (std::vector<std::string>{"1:one", "-v"}));
}

TEST_F(CommandLineTest, TooManyParametersAreMalformed) {
  ctrl.max_params = 2;
  expect_malformed({"one", "two", "--", "three"}, "too many parameters, at most 2");
  EXPECT_EQ(told, (std::vector<std::string>{"1:one", "2:two"}));
}

TEST_F(CommandLineTest, ParameterTextIsPartOfTheMessage) {
  ctrl.min_params = 2;
  ctrl.max_params = 2;
  ctrl.param_text = "SOURCE TARGET";
  expect_malformed({"one"}, "too few parameters, at least 2: SOURCE TARGET");
  expect_malformed({"one", "two", "three"}, "too many parameters, at most 2: SOURCE TARGET");
  ctrl.param_text = "";
  expect_malformed({}, "too few parameters, at least 2");
}

TEST_F(CommandLineTest, ParameterCountWithinItsBoundsIsInOrder) {
  ctrl.min_params = 1;
  ctrl.max_params = 2;
  expect_in_order({"one"}, {"1:one"});
  told.clear();
  expect_in_order({"one", "two"}, {"1:one", "2:two"});
}

TEST_F(CommandLineTest, BoundsOfZeroOrLessAreNoBounds) {
  for (const int bound : {0, -1}) {
    ctrl.min_params = ctrl.max_params = bound;
    told.clear();
    expect_in_order({}, {});
    expect_in_order({"one", "two", "three"}, {"1:one", "2:two", "3:three"});
  }
}

TEST_F(CommandLineTest, NullPointersAreMalformed) {
  const char* const argv[] = {"prog", "-v"};
  const std::string reason = "no command line, control record or callback";

  EXPECT_NE(gnl_cmdlin(2, nullptr, &ctrl), 0);
  EXPECT_EQ(gnl_usrmsg, reason);
  gnl_usrmsg[0] = '\0';
  EXPECT_NE(gnl_cmdlin(2, argv, nullptr), 0);
  EXPECT_EQ(gnl_usrmsg, reason);
  gnl_usrmsg[0] = '\0';
  ctrl.callback = nullptr;
  EXPECT_NE(gnl_cmdlin(2, argv, &ctrl), 0);
  EXPECT_EQ(gnl_usrmsg, reason);
}

TEST_F(CommandLineTest, CountsOfZeroAndLessAreAnEmptyLine) {
  const char* const argv[] = {nullptr};
  for (const int argc : {0, -1}) {
    EXPECT_EQ(gnl_cmdlin(argc, argv, &ctrl), 0);
    EXPECT_STREQ(gnl_usrmsg, "");
  }
  EXPECT_TRUE(told.empty());
}

TEST_F(CommandLineTest, MessageIsCutToItsSize) {
  const std::string word = "--" + std::string(3 * GNL_USRMSG_SIZE, 'a');
  const std::string reason = "unknown option " + word;
  expect_malformed({word.c_str()}, reason.substr(0, GNL_USRMSG_SIZE - 1));
}

TEST_F(CommandLineTest, ExceptionOfTheCallbackPassesThrough) {
  ctrl.callback = [](_gnl_cmdlin_ctrl*, int, int, const char*) -> int {
    throw std::runtime_error("from the callback");
  };
  EXPECT_THROW(parse({"-v"}), std::runtime_error);
  EXPECT_STREQ(gnl_usrmsg, "left from before");
}

TEST(InitTest, AcceptsARecord) {
  gnl_init_ctrl ctrl{};
  ctrl.has_cmdlin = 1;
  ctrl.flags = GNL_INIT_DAEMON;
  std::snprintf(gnl_usrmsg, GNL_USRMSG_SIZE, "left from before");
  EXPECT_EQ(gnl_init(&ctrl), 0);
  EXPECT_STREQ(gnl_usrmsg, "");
}

TEST(InitTest, RefusesNull) {
  EXPECT_NE(gnl_init(nullptr), 0);
  EXPECT_STREQ(gnl_usrmsg, "no initialisation record");
}

TEST(TraceLevelTest, NamesOfTheLevels) {
  const std::vector<std::string> names{"MUST", "ERR", "WARN", "INFO", "DBG", "TRC"};
  for (int level = 0; level < 6; ++level) {
    EXPECT_EQ(trc_lvl2sym(level), names.at(static_cast<std::size_t>(level)));
  }
}

TEST(TraceLevelTest, OtherLevelsHaveNumberedNames) {
  EXPECT_STREQ(trc_lvl2sym(6), "L6");
  EXPECT_STREQ(trc_lvl2sym(-1), "L-1");
  EXPECT_STREQ(trc_lvl2sym(INT_MAX), "L2147483647");
  EXPECT_STREQ(trc_lvl2sym(INT_MIN), "L-2147483648");
}

TEST(TraceLevelTest, EveryLevelIsReadBack) {
  for (const int level : {INT_MIN, -7, -1, 0, 1, 2, 3, 4, 5, 6, 7, 99, 1000000, INT_MAX}) {
    EXPECT_EQ(trc_sym2lvl(trc_lvl2sym(level)), level);
  }
}

TEST(TraceLevelTest, CaseIsIgnored) {
  EXPECT_EQ(trc_sym2lvl("must"), 0);
  EXPECT_EQ(trc_sym2lvl("Err"), 1);
  EXPECT_EQ(trc_sym2lvl("tRC"), 5);
  EXPECT_EQ(trc_sym2lvl("l12"), 12);
}

TEST(TraceLevelTest, UnknownSymbols) {
  EXPECT_EQ(trc_sym2lvl(nullptr), -1);
  for (const char* symbol : {"", "ERROR", "ER", " ERR", "ERR ", "7", "L", "L+7", "L 7", "L7x", "L-",
                             "M7", "L2147483648", "L99999999999999999999"}) {
    EXPECT_EQ(trc_sym2lvl(symbol), -1) << symbol;
  }
}

TEST(TraceLevelTest, NumberedNamesBelongToTheThread) {
  const char* const mine = trc_lvl2sym(70);
  std::string other;
  std::thread([&other] { other = trc_lvl2sym(71); }).join();
  EXPECT_EQ(other, "L71");
  EXPECT_STREQ(mine, "L70");
}

TEST(DecimalTextTest, Integers) {
  for (const char* text : {"0", "7", "-1", "+12", "007", "123456789012345678901234567890"}) {
    EXPECT_NE(isdecstr(text), 0) << text;
  }
}

TEST(DecimalTextTest, EverythingElse) {
  EXPECT_EQ(isdecstr(nullptr), 0);
  for (const char* text : {"", "+", "-", "+-1", "--1", " 1", "1 ", "1\n", "1.0", "0x10", "1e3", "a",
                           "12a", "1-", "/", ":", "\xb2"}) {
    EXPECT_EQ(isdecstr(text), 0) << text;
  }
}

constexpr std::int64_t LEAST = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t GREATEST = std::numeric_limits<std::int64_t>::max();

int distance(timeval from, timeval to) {
  return utime_diff(&from, &to);
}

TEST(TimeDifferenceTest, IsPositiveWhenTheSecondIsLater) {
  EXPECT_EQ(distance({10, 0}, {10, 1}), 1);
  EXPECT_EQ(distance({10, 0}, {9, 999999}), -1);
  EXPECT_EQ(distance({10, 900000}, {12, 100000}), 1200000);
  EXPECT_EQ(distance({12, 100000}, {10, 900000}), -1200000);
  EXPECT_EQ(distance({5, 5}, {5, 5}), 0);
}

TEST(TimeDifferenceTest, TakesUnnormalisedAndNegativeParts) {
  EXPECT_EQ(distance({10, 0}, {10, 2500000}), 2500000);
  EXPECT_EQ(distance({10, 2500000}, {12, 500000}), 0);
  EXPECT_EQ(distance({0, 0}, {-3, 1}), -2999999);
  EXPECT_EQ(distance({-3, 0}, {-5, 0}), -2000000);
  EXPECT_EQ(distance({1, -1000000}, {0, 7}), 7);
}

TEST(TimeDifferenceTest, IsExactUpToTheLimitsOfInt) {
  EXPECT_EQ(distance({0, 0}, {2147, 483646}), INT_MAX - 1);
  EXPECT_EQ(distance({0, 0}, {2147, 483647}), INT_MAX);
  EXPECT_EQ(distance({0, 0}, {-2147, -483647}), INT_MIN + 1);
  EXPECT_EQ(distance({0, 0}, {-2147, -483648}), INT_MIN);
}

TEST(TimeDifferenceTest, StopsAtTheLimitsOfInt) {
  EXPECT_EQ(distance({0, 0}, {2147, 483648}), INT_MAX);
  EXPECT_EQ(distance({0, 0}, {-2147, -483649}), INT_MIN);
  EXPECT_EQ(distance({0, 0}, {86400, 0}), INT_MAX);
  EXPECT_EQ(distance({86400, 0}, {0, 0}), INT_MIN);
}

TEST(TimeDifferenceTest, HasTheRightSignForTheGreatestDistances) {
  EXPECT_EQ(distance({LEAST, LEAST}, {GREATEST, GREATEST}), INT_MAX);
  EXPECT_EQ(distance({GREATEST, GREATEST}, {LEAST, LEAST}), INT_MIN);
  EXPECT_EQ(distance({0, 0}, {0, GREATEST}), INT_MAX);
  EXPECT_EQ(distance({0, 0}, {0, LEAST}), INT_MIN);
  EXPECT_EQ(distance({GREATEST, 0}, {GREATEST, 1}), 1);
  EXPECT_EQ(distance({LEAST, 1}, {LEAST, 0}), -1);
}

TEST(TimeDifferenceTest, SecondsAndMicrosecondsOfOppositeSignCancel) {
  constexpr std::int64_t seconds = GREATEST / 1000000;
  EXPECT_EQ(distance({seconds, -seconds * 1000000}, {0, 3}), 3);
}

}  // namespace
