// Configurations: the file format, look-ups, typed values, dump, and the manager.

#include "vornfc/config.h"

#include "support/allocations.h"
#include "support/sanitizers.h"
#include "support/wait_for.h"
#include "vornfc/exception.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

using vornfc::VrnConfig;
using vornfc::VrnConfigMgr;
using vornfc::VrnException;
using vornfc::VrnNocaseStringLess;

namespace {

using Texts = std::vector<std::string>;

class ConfigTest : public testing::Test {
 public:
  ConfigTest() {
    char name[] = "/tmp/vornfc_config_test_XXXXXX";
    dir = mkdtemp(name);
    file = dir + "/config";
  }
  ~ConfigTest() override { std::filesystem::remove_all(dir); }

 protected:
  void write(const std::string& text) const { std::ofstream(file, std::ios::binary) << text; }

  VrnConfig parse(const std::string& text) const {
    write(text);
    return VrnConfig(file);
  }

  // The values of an item with this value text.
  Texts values_of(const std::string& text) const {
    return parse("[g]\nk=" + text + "\n").values("g", "k", true);
  }

  static void expect_error(int code, const std::string& text, const std::function<void()>& action) {
    try {
      action();
      ADD_FAILURE() << "not thrown: " << text;
    } catch (const VrnException& e) {
      EXPECT_EQ(e.err(), code);
      EXPECT_EQ(e.what(), text);
    }
  }

  // The parser refuses the file, in line `lineno`.
  void expect_fault(const std::string& text, int lineno, const std::string& fault) const {
    expect_error(9, "VrnConfig " + file + ":" + std::to_string(lineno) + " - " + fault,
                 [&] { parse(text); });
  }

  static std::string dump(const VrnConfig& config) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    config.dump(stream);
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
  }

  std::string dir;
  std::string file;
};

// Lines

TEST_F(ConfigTest, EmptyFileIsAnEmptyConfiguration) {
  EXPECT_EQ(parse("").groups(), Texts{});
}

TEST_F(ConfigTest, BlankLinesAndCommentsAreSkipped) {
  const VrnConfig config = parse("\n   \t\n# one\n   # two\n#[g]\n[g]\n#k=1\n");
  EXPECT_EQ(config.groups(), Texts{"g"});
  EXPECT_EQ(config.items("g", true), Texts{});
}

TEST_F(ConfigTest, HashSignInsideALineIsText) {
  EXPECT_EQ(values_of("a # b"), Texts{"a # b"});
  EXPECT_EQ(parse("[g]#]\n").groups(), Texts{"g]#"});
}

TEST_F(ConfigTest, CarriageReturnAtTheEndOfALineIsWhiteSpace) {
  const VrnConfig config = parse("[g]\r\nk=v\r\n\r\n");
  EXPECT_EQ(config.value("g", "k", true, 0), "v");
}

TEST_F(ConfigTest, LastLineEndsWithALineEnd) {
  expect_fault("[g]\nk=v", 2, "Line too long, max=1601");
  expect_fault("# note", 1, "Line too long, max=1601");
  expect_fault("[g]\n ", 2, "Line too long, max=1601");
}

TEST_F(ConfigTest, LineHasAtMost1599Characters) {
  const std::string longest = "k=" + std::string(1597, 'v');
  EXPECT_EQ(parse("[g]\n" + longest + "\n").value("g", "k", true, 0), std::string(1597, 'v'));
  expect_fault("[g]\n" + longest + "v\n", 2, "Line too long, max=1601");
  expect_fault("[g]\n" + std::string(9999, ' ') + "\n", 2, "Line too long, max=1601");
}

TEST_F(ConfigTest, NulByteIsRefused) {
  expect_fault(std::string("[g]\nk=a\0b\nx=1\n", 14), 2, "NUL byte in line");
  expect_fault(std::string("#\0\n", 3), 1, "NUL byte in line");
}

TEST_F(ConfigTest, BytesAbove7fAreText) {
  const VrnConfig config = parse("[Gr\xc3\xbc\xdf]\n\xff = \x80 ; \xa0x\xa0\n");
  EXPECT_EQ(config.groups(), Texts{"Gr\xc3\xbc\xdf"});
  EXPECT_EQ(config.values("gr\xc3\xbc\xdf", "\xff", true), (Texts{"\x80", "\xa0x\xa0"}));
}

// Group headers

TEST_F(ConfigTest, GroupNameIsTrimmedAndMayBeAnything) {
  EXPECT_EQ(parse("[ Net ]\n [] \n[a]b]\n[[x]\n[ ]]\n").groups(),
            (Texts{"Net", "", "a]b", "[x", "]"}));
}

TEST_F(ConfigTest, HeaderEndsWithABracket) {
  expect_fault("[Net\n", 1, "Invalid group-name brackets [[Net]");
  expect_fault("  [Net] x \n", 1, "Invalid group-name brackets [[Net] x]");
  expect_fault("[\n", 1, "Invalid group-name brackets [[]");
}

TEST_F(ConfigTest, GroupNamesDifferByMoreThanCase) {
  expect_fault("[ Net ]\nk=1\n\n[net]\n", 4, "Duplicate net group");
  expect_fault("[]\n[ ]\n", 2, "Duplicate  group");
}

// Items

TEST_F(ConfigTest, ItemStandsInAGroup) {
  expect_fault("# note\nk=1\n[g]\n", 2, "Not in group !");
  expect_fault("no delimiter either\n", 1, "Not in group !");
}

TEST_F(ConfigTest, ItemHasADelimiter) {
  expect_fault("[g]\n  just text \n", 2, "Missing name/value delimiter [just text]");
}

TEST_F(ConfigTest, OnlyTheFirstDelimiterSplits) {
  EXPECT_EQ(parse("[g]\nkey = b=c\n").values("g", "key", true), Texts{"b=c"});
}

TEST_F(ConfigTest, ItemNameIsTrimmedAndMayBeEmpty) {
  const VrnConfig config = parse("[g]\n  a b  =1\n=2\n");
  EXPECT_EQ(config.items("g", true), (Texts{"a b", ""}));
  EXPECT_EQ(config.value("g", "", true, 0), "2");
}

TEST_F(ConfigTest, ItemNamesOfAGroupDifferByMoreThanCase) {
  expect_fault("[Grp]\nKey=1\nother=2\nkEY=3\n", 4, "Duplicate kEY item in group Grp");
  EXPECT_EQ(parse("[a]\nk=1\n[b]\nk=2\n").value("b", "k", true, 0), "2");
}

TEST_F(ConfigTest, DuplicateIsFoundBeforeTheValueIsLookedAt) {
  expect_fault("[g]\nk=1\nk=\"\\\n", 3, "Duplicate k item in group g");
}

// Values

TEST_F(ConfigTest, SemicolonsSeparateTrimmedValues) {
  EXPECT_EQ(values_of(" one ;\ttwo words ; three"), (Texts{"one", "two words", "three"}));
}

TEST_F(ConfigTest, EmptyValuesStayExceptAtTheEnd) {
  EXPECT_EQ(values_of("a;b;;c;;"), (Texts{"a", "b", "", "c"}));
  EXPECT_EQ(values_of(";a"), (Texts{"", "a"}));
  EXPECT_EQ(values_of(""), Texts{});
  EXPECT_EQ(values_of("  ;; ; "), Texts{});
  EXPECT_EQ(values_of("a;\"\";\" \""), (Texts{"a", "", " "}));
  EXPECT_EQ(values_of("a;\"\""), Texts{"a"});
}

TEST_F(ConfigTest, BackslashTakesTheNextCharacterLiterally) {
  EXPECT_EQ(values_of("a\\;b"), Texts{"a;b"});
  EXPECT_EQ(values_of("a\\\\;b"), (Texts{"a\\", "b"}));
  EXPECT_EQ(values_of("a\\nb\\ c"), Texts{"anb c"});
  EXPECT_EQ(values_of("x\\\"y"), Texts{"x\"y"});
}

TEST_F(ConfigTest, EscapedSpaceAtAnEndIsTrimmedAway) {
  EXPECT_EQ(values_of("\\ a\\ ;b"), (Texts{"a", "b"}));
}

TEST_F(ConfigTest, BackslashAtTheEndIsHanging) {
  expect_fault("[g]\nk=a\\\n", 2, "Hanging escape [a\\]");
  expect_fault("[g]\nk=a\\   \n", 2, "Hanging escape [a\\]");
  expect_fault("[g]\nk=a; b\\;c\\\n", 2, "Hanging escape [ b\\;c\\]");
  expect_fault("[g]\nk=\\\n", 2, "Hanging escape [\\]");
  EXPECT_EQ(values_of("a\\\\"), Texts{"a\\"});
}

TEST_F(ConfigTest, QuotesKeepTheSpaceInside) {
  EXPECT_EQ(values_of("\" a \""), Texts{" a "});
  EXPECT_EQ(values_of(" \" a \" ; \"b\" "), (Texts{" a ", "b"}));
  EXPECT_EQ(values_of("a \"b\" c"), Texts{"a \"b\" c"});
}

TEST_F(ConfigTest, SeparatorInsideQuotesSeparatesUnlessEscaped) {
  EXPECT_EQ(values_of("\"a\\;b\""), Texts{"a;b"});
  expect_fault("[g]\nk=\"a;b\"\n", 2, "Mismatched quotes in value 0 [\"a]");
}

TEST_F(ConfigTest, QuotesStandAtBothEnds) {
  expect_fault("[g]\nk=\"a\n", 2, "Mismatched quotes in value 0 [\"a]");
  expect_fault("[g]\nk=x; ; a\" \n", 2, "Mismatched quotes in value 2 [a\"]");
}

TEST_F(ConfigTest, EscapedQuoteAtAnEndIsAQuoteStill) {
  expect_fault("[g]\nk=\\\"a\n", 2, "Mismatched quotes in value 0 [\"a]");
  EXPECT_EQ(values_of("\\\"a\\\""), Texts{"a"});
}

TEST_F(ConfigTest, LoneQuoteIsBothQuotesAndSoEmpty) {
  EXPECT_EQ(values_of("\";a"), (Texts{"", "a"}));
  EXPECT_EQ(values_of("\""), Texts{});
}

TEST_F(ConfigTest, LongTextsInMessagesAreCut) {
  const std::string text = "k" + std::string(1500, 'x');
  const std::string whole = "VrnConfig " + file + ":2 - Missing name/value delimiter [" + text;
  expect_error(9, whole.substr(0, 1023), [&] { parse("[g]\n" + text + "\n"); });
}

// Files

TEST_F(ConfigTest, DefaultConfigurationHasNoFile) {
  VrnConfig config;
  EXPECT_EQ(config.filename(), "");
  EXPECT_EQ(config.groups(), Texts{});
  config.update();
  EXPECT_EQ(config.groups(), Texts{});
}

TEST_F(ConfigTest, BlankFileNameIsRefused) {
  expect_error(3, "VrnConfig: Blank filename supplied !", [] { VrnConfig config{std::string()}; });
}

TEST_F(ConfigTest, NameOfSpacesIsAFileName) {
  expect_error(9, "VrnConfig: Failed to open file [  ]",
               [] { VrnConfig config(std::string("  ")); });
}

TEST_F(ConfigTest, MissingFileIsRefused) {
  expect_error(9, "VrnConfig: Failed to open file [" + file + "]", [&] { VrnConfig config(file); });
}

TEST_F(ConfigTest, DirectoryIsRefused) {
  expect_error(9, "VrnConfig " + dir + ":1 - Read error [Is a directory]",
               [&] { VrnConfig config(dir); });
}

TEST_F(ConfigTest, FileIsClosedAfterSuccessAndAfterAFault) {
  const int lowest_free = open("/dev/null", O_RDONLY);
  close(lowest_free);
  parse("[g]\n");
  EXPECT_THROW(parse("wrong\n"), VrnException);
  const int now = open("/dev/null", O_RDONLY);
  close(now);
  EXPECT_EQ(now, lowest_free);
}

// A pipe holds the parser in mid-file while its descriptor is looked at.
TEST_F(ConfigTest, FileIsCloseOnExec) {
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  std::thread reader([this] { VrnConfig config(file); });
  const int writer = open(file.c_str(), O_WRONLY | O_CLOEXEC);
  // The writer's open returns as soon as the parser has begun its own, which may not be there yet.
  std::vector<int> found;
  const bool both = wait_for([&] {
    found.clear();
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;
      if (std::filesystem::read_symlink(entry.path(), gone) == file)
        found.push_back(std::stoi(entry.path().filename()));
    }
    return found.size() == 2;
  });
  EXPECT_TRUE(both) << found.size();
  for (const int fd : found) EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
  close(writer);
  reader.join();
}

TEST_F(ConfigTest, UpdateReadsTheFileAgain) {
  VrnConfig config = parse("[a]\nk=1\n");
  write("[b]\nk=2\n");
  config.update();
  EXPECT_EQ(config.groups(), Texts{"b"});
  EXPECT_EQ(config.value("b", "k", true, 0), "2");
}

TEST_F(ConfigTest, UpdateKeepsWhatPrecedesAFault) {
  VrnConfig config = parse("[old]\n");
  write("[a]\nk=1\nl=2\nl=3\n[b]\n");
  expect_error(9, "VrnConfig " + file + ":4 - Duplicate l item in group a",
               [&] { config.update(); });
  EXPECT_EQ(config.groups(), Texts{"a"});
  EXPECT_EQ(config.items("a", true), (Texts{"k", "l"}));
}

TEST_F(ConfigTest, ItemWithAFaultyValueIsNotKept) {
  VrnConfig config = parse("[old]\n");
  write("[a]\nk=1\nl=\"2\n");
  EXPECT_THROW(config.update(), VrnException);
  EXPECT_EQ(config.items("a", true), Texts{"k"});
  EXPECT_EQ(dump(config), "# Filename = " + file + "\n# 1 Groups\n\n[a]\n# 1 Items\nk=1\n");
}

TEST_F(ConfigTest, UpdateOfAFileThatIsGoneEmptiesTheConfiguration) {
  VrnConfig config = parse("[a]\n");
  std::filesystem::remove(file);
  expect_error(9, "VrnConfig: Failed to open file [" + file + "]", [&] { config.update(); });
  EXPECT_EQ(config.groups(), Texts{});
}

TEST_F(ConfigTest, RelativeNameMeansTheSameFileInAnyDirectory) {
  write("[a]\n");
  ASSERT_EQ(chdir(dir.c_str()), 0);
  VrnConfig config(std::string("config"));
  VrnConfig copy(config);
  VrnConfig assigned;
  assigned = config;
  ASSERT_EQ(chdir("/"), 0);
  write("[b]\n");
  for (VrnConfig* any : {&config, &copy, &assigned}) {
    any->update();
    EXPECT_EQ(any->groups(), Texts{"b"});
    EXPECT_EQ(any->filename(), "config");
  }
  write("wrong\n");
  expect_error(9, "VrnConfig config:1 - Not in group !", [&] { config.update(); });
  std::filesystem::remove(file);
  expect_error(9, "VrnConfig: Failed to open file [config]", [&] { config.update(); });
}

TEST_F(ConfigTest, CopiesAreIndependent) {
  VrnConfig config = parse("[a]\nx=1\nb=2\n");
  const VrnConfig copy(config);
  VrnConfig assigned = parse("[a]\nx=1\nb=2\n");
  assigned = config;
  write("[c]\n");
  config.update();
  EXPECT_EQ(copy.items("a", true), (Texts{"x", "b"}));
  EXPECT_EQ(assigned.items("a", true), (Texts{"x", "b"}));
  EXPECT_EQ(config.groups(), Texts{"c"});
}

TEST_F(ConfigTest, SelfAssignmentChangesNothing) {
  VrnConfig config = parse("[a]\nx=1\n");
  const VrnConfig& same = config;
  config = same;
  EXPECT_EQ(config.value("a", "x", true, 0), "1");
}

// Look-ups

TEST_F(ConfigTest, NamesAreFoundInEitherCase) {
  const VrnConfig config = parse("[Net]\nHost=a\n");
  EXPECT_TRUE(config.exists("NET"));
  EXPECT_TRUE(config.exists("net", "hOST"));
  EXPECT_FALSE(config.exists("nets"));
  EXPECT_FALSE(config.exists("net", "hosts"));
  EXPECT_FALSE(config.exists("nets", "host"));
  EXPECT_EQ(config.value("NET", "HOST", true, 0), "a");
}

TEST_F(ConfigTest, ManyNamesAreFound) {
  std::string text;
  for (int group = 0; group < 100; ++group) {
    text += "[group" + std::to_string(group) + "]\n";
    for (int item = 0; item < 100; ++item) {
      text +=
          "item" + std::to_string(item) + "=" + std::string(20, 'v') + std::to_string(item) + "\n";
    }
  }
  const VrnConfig config = parse(text);
  for (int group = 0; group < 100; ++group) {
    for (int item = 0; item < 100; ++item) {
      EXPECT_EQ(
          config.value("GROUP" + std::to_string(group), "Item" + std::to_string(item), true, 0),
          std::string(20, 'v') + std::to_string(item));
    }
  }
  EXPECT_EQ(config.value("group0", "item100", false, 0), "");
}

// The locale is that of the application. One of eight bits is made for the test.
class ConfigLocaleTest : public ConfigTest {
 protected:
  void SetUp() override {
#ifdef VORNFC_TEST_SANITIZED
    GTEST_SKIP() << "the sanitizer's strcasecmp() knows no locale";
#endif
  }

  // False: the system has nothing to make it of.
  bool use_locale(const std::string& language, const std::string& charset) const {
    const std::string name = dir + "/" + language;
    const std::string make = "localedef --no-archive -i " + language + " -f " + charset + " " +
                             name + " >/dev/null 2>&1";
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe)
    if (std::system(make.c_str()) != 0) return false;
    setenv("LOCPATH", dir.c_str(), 1);
    return std::setlocale(LC_ALL, language.c_str()) != nullptr;
  }
};

TEST_F(ConfigLocaleTest, NamesAreFoundInEitherCaseOfTheLocale) {
  if (!use_locale("de_DE", "ISO-8859-1")) GTEST_SKIP() << "localedef cannot make de_DE";
  const VrnConfig config = parse("[\xd6l]\ns\xe4ule=1\n\xd7=2\n");
  EXPECT_EQ(config.value("\xf6l", "S\xc4ULE", true, 0), "1");
  EXPECT_EQ(config.value("\xd6l", "\xd7", true, 0), "2");
  EXPECT_EQ(config.value("\xd6l", "\xf7", false, 0), "");  // these two have no case
  expect_fault("[\xd6l]\n[\xf6l]\n", 2, "Duplicate \xf6l group");
}

TEST_F(ConfigLocaleTest, TurkishHasTwoLettersI) {
  if (!use_locale("tr_TR", "ISO-8859-9")) GTEST_SKIP() << "localedef cannot make tr_TR";
  const VrnConfig config = parse("[g]\nI=1\ni=2\n");
  EXPECT_EQ(config.value("g", "\xfd", true, 0), "1");  // without a dot
  EXPECT_EQ(config.value("g", "\xdd", true, 0), "2");  // with a dot
  const VrnConfig other = parse("[g]\n\xfd=1\n\xdd=2\n");
  EXPECT_EQ(other.value("g", "I", true, 0), "1");
  EXPECT_EQ(other.value("g", "i", true, 0), "2");
}

TEST_F(ConfigTest, NamesAreListedInTheOrderAndTheCaseOfTheFile) {
  const VrnConfig config = parse("[Zeta]\nTwo=\none=\n[alpha]\n");
  EXPECT_EQ(config.groups(), (Texts{"Zeta", "alpha"}));
  EXPECT_EQ(config.items("zeta", true), (Texts{"Two", "one"}));
}

TEST_F(ConfigTest, MissingGroup) {
  const VrnConfig config = parse("[a]\n");
  const std::string text = "VrnConfig: No such group <x>";
  expect_error(9, text, [&] { config.items("x", true); });
  expect_error(9, text, [&] { config.values("x", "k", true); });
  expect_error(9, text, [&] { config.value("x", "k", true, 0); });
  EXPECT_EQ(config.items("x", false), Texts{});
  EXPECT_EQ(config.values("x", "k", false), Texts{});
  EXPECT_EQ(config.value("x", "k", false, 0), "");
}

TEST_F(ConfigTest, MissingItem) {
  const VrnConfig config = parse("[a]\n");
  const std::string text = "VrnConfig: No such item <a, k>";
  expect_error(9, text, [&] { config.values("a", "k", true); });
  expect_error(9, text, [&] { config.value("a", "k", true, 0); });
  EXPECT_EQ(config.values("a", "k", false), Texts{});
  EXPECT_EQ(config.value("a", "k", false, 0), "");
}

TEST_F(ConfigTest, MissingIndex) {
  const VrnConfig config = parse("[a]\nk=1;2\nnone=\n");
  expect_error(9, "VrnConfig: No such item <a, k, 5>", [&] { config.value("a", "k", true, 5); });
  expect_error(9, "VrnConfig: No such item <A, None, 0>",
               [&] { config.value("A", "None", true, 0); });
  EXPECT_EQ(config.value("a", "k", false, 5), "");
  EXPECT_EQ(config.value("a", "k", true, 1), "2");
  EXPECT_EQ(config.values("a", "none", true), Texts{});
}

TEST_F(ConfigTest, LookUpAllocatesNothingBeyondTheCopy) {
  REQUIRE_COUNTED_ALLOCATIONS();
  const std::string long_text(100, 'x');
  const VrnConfig config = parse("[a long name of a group]\nan item with a long name=short;" +
                                 long_text + "\nflag=yes\nnumber=42\n");
  const std::string group = "a long name of a group";
  const std::string item = "an item with a long name";
  const auto allocated_by = [](const std::function<void()>& action) {
    const long before = sys::allocations();
    action();
    return sys::allocations() - before;
  };
  EXPECT_EQ(allocated_by([&] { config.exists(group, item); }), 0);
  EXPECT_EQ(allocated_by([&] { config.value(group, item, true, 0); }), 0);
  EXPECT_EQ(allocated_by([&] { config.value(group, item, true, 1); }), 1);
  EXPECT_EQ(allocated_by([&] { config.boolval(group, "flag", false, 0); }), 0);
  EXPECT_EQ(allocated_by([&] { config.intval(group, "number", 0, 0); }), 0);
  EXPECT_EQ(allocated_by([&] { config.values(group, item, true); }), 2);
}

// Typed values

TEST_F(ConfigTest, BooleansAreWordsInEitherCase) {
  const VrnConfig config = parse("[g]\nt=YES;y;TRUE;Yes;true\nf=no;N;False;NO;false\n");
  for (unsigned int i = 0; i < 5; ++i) {
    EXPECT_TRUE(config.boolval("g", "t", false, i));
    EXPECT_FALSE(config.boolval("g", "f", true, i));
  }
}

TEST_F(ConfigTest, OtherTextsAreNoBooleans) {
  const VrnConfig config = parse("[g]\nk=1;on;yess\n");
  expect_error(9, "VrnConfig: Invalid Boolean value=1 <g, K, 0>",
               [&] { config.boolval("g", "K", true, 0); });
  expect_error(9, "VrnConfig: Invalid Boolean value=on <g, k, 1>",
               [&] { config.boolval("g", "k", true, 1); });
  expect_error(9, "VrnConfig: Invalid Boolean value=yess <g, k, 2>",
               [&] { config.boolval("g", "k", true, 2); });
}

TEST_F(ConfigTest, IntegersAreDecimal) {
  const VrnConfig config = parse("[g]\nk=42;-7;+3;007;4294967297\n");
  EXPECT_EQ(config.intval("g", "k", 0, 0), 42);
  EXPECT_EQ(config.intval("g", "k", 0, 1), -7);
  EXPECT_EQ(config.intval("g", "k", 0, 2), 3);
  EXPECT_EQ(config.intval("g", "k", 0, 3), 7);
  EXPECT_EQ(config.intval("g", "k", 0, 4), 1);  // 2^32 + 1, cut to an int
}

TEST_F(ConfigTest, OtherTextsAreNoIntegers) {
  const VrnConfig config = parse("[g]\nk=4x;0x10\n");
  expect_error(9, "VrnConfig: Invalid Integer value=4x <g, k, 0>",
               [&] { config.intval("g", "k", 1, 0); });
  expect_error(9, "VrnConfig: Invalid Integer value=0x10 <g, k, 1>",
               [&] { config.intval("g", "k", 1, 1); });
}

TEST_F(ConfigTest, WhatIsMissingOrEmptyHasTheDefaultValue) {
  const VrnConfig config = parse("[g]\nk=;x\nnone=\n");
  const std::vector<std::pair<std::string, std::string>> names{
      {"missing", "k"}, {"g", "missing"}, {"g", "none"}, {"g", "k"}};
  for (const auto& [group, item] : names) {
    EXPECT_TRUE(config.boolval(group, item, true, 0));
    EXPECT_FALSE(config.boolval(group, item, false, 0));
    EXPECT_EQ(config.intval(group, item, -12, 0), -12);
  }
  EXPECT_EQ(config.intval("g", "k", 9, 7), 9);
}

// Dump

TEST_F(ConfigTest, DumpIsAlphabeticalAndToTheByte) {
  const VrnConfig config = parse(
      "[Zeta]\nb = 1 ;2;  three words\nA=\" x \"; a\\;b ;c\\\\d\n[alpha]\n[Beta]\nempty=\nq=say "
      "\\\"hi\\\" now\n");
  EXPECT_EQ(dump(config), "# Filename = " + file +
                              "\n"
                              "# 3 Groups\n"
                              "\n[alpha]\n"
                              "# 0 Items\n"
                              "\n[Beta]\n"
                              "# 2 Items\n"
                              "empty=\n"
                              "q=say \"hi\" now\n"
                              "\n[Zeta]\n"
                              "# 2 Items\n"
                              "A=\" x \"; a\\;b; c\\\\d\n"
                              "b=1; 2; three words\n");
}

TEST_F(ConfigTest, DumpOfAnEmptyConfiguration) {
  EXPECT_EQ(dump(VrnConfig()), "# Filename = \n# 0 Groups\n");
}

TEST_F(ConfigTest, DumpReadsBackWithItsEmptyValues) {
  const VrnConfig config = parse("[g]\nk=a;;b\nl=;;\" \";x\\\\\\;y\nm=\" one sided\"\n");
  const std::string text = dump(config);
  EXPECT_NE(text.find("k=a; ; b\n"), text.npos);
  EXPECT_NE(text.find("l=; ; \" \"; x\\\\\\;y\n"), text.npos);
  EXPECT_NE(text.find("m=\" one sided\"\n"), text.npos);
  const VrnConfig again = parse(text);
  for (const char* item : {"k", "l", "m"}) {
    EXPECT_EQ(again.values("g", item, true), config.values("g", item, true)) << item;
  }
  EXPECT_EQ(dump(again), text);
}

TEST_F(ConfigTest, DumpDoesNotReproduceQuotesAtTheEndsOfAValue) {
  const VrnConfig config = parse("[g]\nk=\"\"a\"\"\n");
  EXPECT_EQ(config.value("g", "k", true, 0), "\"a\"");
  EXPECT_EQ(parse(dump(config)).value("g", "k", true, 0), "a");
}

TEST_F(ConfigTest, DumpToANullStreamIsRefused) {
  const VrnConfig config = parse("[g]\n");
  expect_error(3, "VrnConfig " + file + ": Null stream for dump", [&] { config.dump(nullptr); });
}

// The order of names

TEST(NocaseStringLessTest, IgnoresCase) {
  const VrnNocaseStringLess less;
  EXPECT_FALSE(less("abc", "ABC"));
  EXPECT_FALSE(less("ABC", "abc"));
  EXPECT_TRUE(less("a", "B"));
  EXPECT_TRUE(less("A", "b"));
  EXPECT_FALSE(less("b", "A"));
  EXPECT_TRUE(less("", "a"));
}

// The manager

TEST_F(ConfigTest, ManagerIsNamedByTheFileAndOwnsTheConfiguration) {
  const VrnConfigMgr manager(new VrnConfig(parse("[g]\nk=1\n")), "top");
  EXPECT_EQ(manager.notifierName(), "Config=" + file);
  EXPECT_EQ(manager.group, "top");
  EXPECT_EQ(manager.config->value("g", "k", true, 0), "1");
}

TEST_F(ConfigTest, ManagerOfAnEmptyConfiguration) {
  const VrnConfigMgr manager(new VrnConfig(), "");
  EXPECT_EQ(manager.notifierName(), "Config=");
}

TEST_F(ConfigTest, ManagerWithoutAConfigurationIsDestroyedQuietly) {
  VrnConfigMgr manager(new VrnConfig(), "");
  delete manager.config;
  manager.config = nullptr;
}

TEST_F(ConfigTest, NullConfigurationIsRefused) {
  expect_error(3, "VrnConfigMgr: Null VrnConfig", [] { VrnConfigMgr manager(nullptr, "g"); });
}

class CountingObserver : public vornfc::VrnObserver {
 public:
  void observerNotified(vornfc::VrnNotifier*) override { ++notified; }
  void observerDetached(vornfc::VrnNotifier*) override { ++detached; }
  std::string observerName() const override { return "counting"; }

  int notified = 0, detached = 0;
};

TEST_F(ConfigTest, ManagerNotifiesItsObservers) {
  CountingObserver observer;
  {
    VrnConfigMgr manager(new VrnConfig(), "");
    manager.attach(&observer);
    manager.notifyObservers();
  }
  EXPECT_EQ(observer.notified, 1);
  EXPECT_EQ(observer.detached, 1);
}

}  // namespace
