#include "vornfc/utils.h"

#include "support/log_capture.h"
#include "vornfc/appshell.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace vornfc {
namespace {

using Lines = std::vector<std::string>;

std::string prefix() {
  return "*** PID=" + std::to_string(getpid()) + ": ";
}

__attribute__((format(printf, 2, 3))) void log_by_list(int level, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vrnlog(ap, level, fmt);
  va_end(ap);
}

// Checks the exception of a failed assertion and returns its message.
template <typename Call>
std::string assertion_message(Call call) {
  try {
    call();
  } catch (const VrnException& e) {
    EXPECT_EQ(e.err(), 3);
    return e.what();
  }
  ADD_FAILURE() << "no VrnException";
  return {};
}

// --- vrnlog without an application ---------------------------------------------------------------

TEST(DiagnosticsTest, LineIsPrefixTextAndLineEnd) {
  LogCapture log;
  vrnlog(1, "%s has %d", "pool", 7);
  EXPECT_EQ(log.raw(), prefix() + "pool has 7\n");
}

TEST(DiagnosticsTest, ListFormWritesTheSameLine) {
  LogCapture log;
  log_by_list(1, "%s has %d", "pool", 7);
  EXPECT_EQ(log.raw(), prefix() + "pool has 7\n");
}

TEST(DiagnosticsTest, PrefixTextAndLineEndAreSeparateWrites) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_DIRECT), 0);  // in packet mode a read returns what one write wrote
  const int saved = dup(2);
  dup2(ends[1], 2);
  vrnlog(0, "text");
  dup2(saved, 2);
  close(saved);
  close(ends[1]);
  Lines writes;
  char buf[256];
  for (ssize_t n; (n = read(ends[0], buf, sizeof buf)) > 0;) {
    writes.emplace_back(buf, static_cast<std::size_t>(n));
  }
  close(ends[0]);
  EXPECT_EQ(writes, (Lines{prefix(), "text", "\n"}));
}

TEST(DiagnosticsTest, ImportantLevelsAreAlwaysWritten) {
  LogCapture log;
  unsetenv("VORNTRC_APPTAG");
  for (int level = 0; level <= 5; ++level) vrnlog(level, "level %d", level);
  EXPECT_EQ(log.lines(), (Lines{"level 0", "level 1", "level 2"}));
}

TEST(DiagnosticsTest, OtherLevelsAreWrittenWhenTheVariableIsYes) {
  LogCapture log;
  setenv("VORNTRC_APPTAG", "y", 1);
  for (int level = 2; level <= 5; ++level) vrnlog(level, "level %d", level);
  EXPECT_EQ(log.lines(), (Lines{"level 2", "level 3", "level 4", "level 5"}));
}

TEST(DiagnosticsTest, CaseOfTheVariableDoesNotMatter) {
  LogCapture log;
  setenv("VORNTRC_APPTAG", "Y", 1);
  vrnlog(4, "seen");
  EXPECT_EQ(log.lines(), Lines{"seen"});
}

TEST(DiagnosticsTest, LongerValueOfTheVariableIsNotYes) {
  LogCapture log;
  setenv("VORNTRC_APPTAG", "yes", 1);
  vrnlog(3, "unseen");
  EXPECT_EQ(log.raw(), "");
}

TEST(DiagnosticsTest, EmptyVariableIsNotYes) {
  LogCapture log;
  setenv("VORNTRC_APPTAG", "", 1);
  vrnlog(3, "unseen");
  EXPECT_EQ(log.raw(), "");
}

TEST(DiagnosticsTest, VariableOfThePrelimsKeyHasNoSay) {
  LogCapture log;
  unsetenv("VORNTRC_APPTAG");
  setenv("VORNTRC_PRELIMS", "y", 1);
  vrnlog(3, "unseen");
  EXPECT_EQ(log.raw(), "");
}

// The line that decides is of a level that does not depend on the decision.
TEST(DiagnosticsTest, FirstLineOfAnyLevelDecidesForGood) {
  LogCapture log;
  unsetenv("VORNTRC_APPTAG");
  vrnlog(1, "first");
  setenv("VORNTRC_APPTAG", "y", 1);
  vrnlog(4, "unseen");
  EXPECT_EQ(log.lines(), Lines{"first"});
}

TEST(DiagnosticsTest, DecisionForYesStaysToo) {
  LogCapture log;
  setenv("VORNTRC_APPTAG", "y", 1);
  vrnlog(0, "first");
  unsetenv("VORNTRC_APPTAG");
  vrnlog(4, "second");
  EXPECT_EQ(log.lines(), (Lines{"first", "second"}));
}

TEST(DiagnosticsTest, LeavesErrnoAsItWas) {
  LogCapture log;
  errno = EPIPE;
  vrnlog(1, "text");
  EXPECT_EQ(errno, EPIPE);
}

TEST(DiagnosticsTest, LeavesErrnoAsItWasWhenStandardErrorIsClosed) {
  LogCapture log;
  close(2);
  errno = EPIPE;
  vrnlog(1, "lost");
  EXPECT_EQ(errno, EPIPE);
}

TEST(DiagnosticsTest, ErrnoInTheFormatIsTheCallers) {
  LogCapture log;
  errno = ENOENT;
  const char* fmt = "open: %m (%d)";
  vrnlog(1, fmt, 7);
  EXPECT_EQ(log.lines(), Lines{"open: No such file or directory (7)"});
}

TEST(DiagnosticsTest, NullFormatIsNamed) {
  LogCapture log;
  const char* fmt = nullptr;
  log_by_list(1, fmt, 0);
  EXPECT_EQ(log.lines(), Lines{"<NULL>"});
}

TEST(DiagnosticsTest, ThreadsMayLogAtTheSameTime) {
  LogCapture log;
  std::thread threads[4];
  for (std::thread& thread : threads) {
    thread = std::thread([] {
      for (int n = 0; n < 100; ++n) vrnlog(4, "x");
    });
  }
  for (std::thread& thread : threads) thread.join();
  // Lines may interleave, but nothing of them is lost.
  EXPECT_EQ(log.raw().size(), 400 * (prefix().size() + 2));
}

// --- vrnlog with an application ------------------------------------------------------------------

struct App : VrnAppShell {
  App() : VrnAppShell(nullptr, "project", "", "description") {}
};

// The settings of a logger that writes plain records of level 4 and below onto `stream`.
VrnLogSpec onto(std::FILE* stream) {
  VrnLogSpec spec;
  spec.stream = stream;
  spec.level = 4;
  return spec;
}

TEST(DiagnosticsTest, WithoutALoggerTheApplicationLogsToStandardError) {
  LogCapture log;
  const App app;
  vrnlog(1, "text");
  EXPECT_EQ(log.lines().back(), "text");
}

TEST(DiagnosticsTest, LoggerOfTheApplicationTakesTheLineAndFiltersIt) {
  LogCapture log;
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* stream = open_memstream(&text, &size);
  {
    App app;
    VrnLogSpec spec = onto(stream);
    app.appSetLogger(&spec);
    const std::string before = log.raw();
    vrnlog(4, "%s has %d", "pool", 7);
    vrnlog(5, "unseen");
    EXPECT_EQ(log.raw(), before);
  }
  std::fclose(stream);
  EXPECT_NE(std::string(text).find("pool has 7\n"), std::string::npos);
  EXPECT_EQ(std::string(text).find("unseen"), std::string::npos);
  std::free(text);
}

// The logger opens its file at the first record, and throws then.
TEST(DiagnosticsTest, FailureOfTheLoggerIsSwallowed) {
  LogCapture log;
  App app;
  VrnLogSpec spec;
  spec.filename = "/nonexistent/directory/log";
  spec.cyclefreq = 2;
  app.appSetLogger(&spec);
  EXPECT_THROW(app.appLogger()->log(1, "text"), VrnException);
  const std::string before = log.raw();
  errno = EPIPE;
  EXPECT_NO_THROW(vrnlog(1, "lost"));
  EXPECT_EQ(errno, EPIPE);
  EXPECT_EQ(log.raw(), before);
}

// --- assertions ----------------------------------------------------------------------------------

TEST(VrnAssertTest, TrueConditionDoesNothing) {
  EXPECT_NO_THROW(VrnAssertBasic(true, "text"));
  EXPECT_NO_THROW(VrnAssertFull(true, "%s", "text"));
}

TEST(VrnAssertTest, BasicThrowsTheTextUnformatted) {
  EXPECT_EQ(assertion_message([] { VrnAssertBasic(false, "100%s"); }), "100%s");
}

TEST(VrnAssertTest, BasicNamesANullText) {
  EXPECT_EQ(assertion_message([] { VrnAssertBasic(false, nullptr); }), "<NULL>");
}

TEST(VrnAssertTest, FullThrowsTheFormattedText) {
  EXPECT_EQ(assertion_message([] { VrnAssertFull(false, "%s=%d", "fd", 4); }), "fd=4");
}

TEST(VrnAssertTest, FailureDoesNotLog) {
  LogCapture log;
  EXPECT_THROW(VrnAssertBasic(false, "text"), VrnException);
  EXPECT_THROW(VrnAssertFull(false, "%s", "text"), VrnException);
  EXPECT_EQ(log.raw(), "");
}

// --- num2buf, objtag -----------------------------------------------------------------------------

TEST(Num2BufTest, PrintsIntoTheBufferOfTheCaller) {
  char buf[31];
  EXPECT_EQ(num2buf(-17, buf), buf);
  EXPECT_STREQ(buf, "-17");
  EXPECT_EQ(num2buf("<%ld>", 5000000000L, buf), buf);
  EXPECT_STREQ(buf, "<5000000000>");
}

TEST(Num2BufTest, DefaultFormatTakesAnInt) {
  char buf[31];
  EXPECT_STREQ(num2buf(5000000000L, buf), "705032704");
}

TEST(Num2BufTest, TextInTheBufferOfTheCallerIsUnbounded) {
  char buf[64];
  EXPECT_EQ(std::string(num2buf("%050ld", 7, buf)), std::string(49, '0') + "7");
}

TEST(Num2BufTest, CallersWithoutABufferShareOne) {
  char* first = num2buf(1);
  char* second = num2buf("%x", 255, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "ff");
}

TEST(Num2BufTest, TextInTheSharedBufferIsCut) {
  EXPECT_EQ(std::string(num2buf("%050ld", 7)), std::string(30, '0'));
}

TEST(Num2BufTest, NullFormatThrows) {
  char buf[31];
  EXPECT_EQ(assertion_message([&] { num2buf(nullptr, 1, buf); }), "num2buf: Null format");
}

const void* at(std::uintptr_t address) {
  return reinterpret_cast<const void*>(address);  // NOLINT(performance-no-int-to-ptr)
}

TEST(ObjTagTest, TagIsTheName) {
  char buf[31] = "untouched";
  const char* tag = "name";
  EXPECT_EQ(objtag(tag, at(1), buf), tag);
  const std::string text = "other";
  EXPECT_EQ(objtag(text, at(1), buf), text.c_str());
  EXPECT_STREQ(buf, "untouched");
}

TEST(ObjTagTest, WithoutATagTheLowHalfOfTheAddressIsTheName) {
  char buf[31];
  EXPECT_EQ(objtag(nullptr, at(0x7fffdeadbeef), buf), buf);
  EXPECT_STREQ(buf, "0xdeadbeef");
  EXPECT_STREQ(objtag("", at(0x1234000000ab), buf), "0xab");
  EXPECT_STREQ(objtag(std::string(), at(0x42), buf), "0x42");
}

TEST(ObjTagTest, WithoutABufferTheSharedOneIsUsed) {
  EXPECT_STREQ(objtag(nullptr, at(0x42)), "0x42");
  EXPECT_EQ(objtag(nullptr, at(0x42)), num2buf(1));
}

// --- strip ---------------------------------------------------------------------------------------

TEST(StripTest, WithoutShiftPointsIntoTheBuffer) {
  char text[] = "  a b  ";
  EXPECT_EQ(strip(text, false), text + 2);
  EXPECT_STREQ(text, "  a b");
}

TEST(StripTest, WithShiftMovesTheTextToTheStart) {
  char text[] = "  a b  ";
  EXPECT_EQ(strip(text, true), text);
  EXPECT_STREQ(text, "a b");
}

TEST(StripTest, EveryKindOfWhiteSpaceIsTrimmed) {
  char text[] = " \t\n\v\f\rx\r\f\v\n\t ";
  EXPECT_STREQ(strip(text, true), "x");
}

TEST(StripTest, TrimmedTextIsLeftAlone) {
  char text[] = "a b";
  EXPECT_EQ(strip(text, false), text);
  EXPECT_STREQ(strip(text, true), "a b");
}

TEST(StripTest, NothingButSpaceGivesAnEmptyText) {
  char spaces[] = " \t ";
  EXPECT_STREQ(strip(spaces, false), "");
  char shifted[] = " \t ";
  EXPECT_EQ(strip(shifted, true), shifted);
  EXPECT_STREQ(shifted, "");
  char empty[] = "";
  EXPECT_STREQ(strip(empty, false), "");
  EXPECT_STREQ(strip(empty, true), "");
}

TEST(StripTest, BytesAboveAsciiAreKept) {
  char text[] = " \xa0\xff ";
  EXPECT_STREQ(strip(text, true), "\xa0\xff");
}

TEST(StripTest, NullTextThrows) {
  EXPECT_EQ(assertion_message([] { strip(nullptr, true); }), "strip: Null text");
}

TEST(StripTest, StringIsReplacedByItsTrimmedText) {
  std::string text = "\t a b \n";
  const char* result = strip(text);
  EXPECT_EQ(text, "a b");
  EXPECT_EQ(result, text.c_str());
}

TEST(StripTest, StringOfSpacesBecomesEmpty) {
  std::string text = "   ";
  EXPECT_STREQ(strip(text), "");
  EXPECT_EQ(text, "");
}

TEST(StripTest, EmptyStringGivesAStaticText) {
  std::string one;
  std::string other;
  EXPECT_STREQ(strip(one), "");
  EXPECT_EQ(strip(one), strip(other));
}

}  // namespace
}  // namespace vornfc
