// Log files: the layout of a record, levels, cycling, and what happens when files fail.

#include "vornfc/log.h"

#include "support/allocations.h"
#include "support/log_capture.h"
#include "support/sanitizers.h"
#include "vornfc/exception.h"
#include "vornsupport/support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using vornfc::VrnException;
using vornfc::VrnLog;

namespace {

constexpr int NEVER = 1, HOURLY = 2, DAILY = 3, MONTHLY = 4;
constexpr int NONE = 1, MILLI = 2, MICRO = 3;

// The clock of the library under test, in microseconds since the epoch. Every look at it moves it
// on by `clock_step`.
std::atomic<long long> clock_now{0};
std::atomic<long long> clock_step{0};

// The library's writes to its own files.
std::atomic<int> write_calls{0};
std::atomic<int> write_interruptions{0};  // so many writes fail with EINTR first
std::size_t write_limit = 0;              // of the next write that is longer; 0: none

}  // namespace

int gettimeofday(struct timeval* tv, void*) noexcept {
  const long long now = clock_now.fetch_add(clock_step);
  errno = EDOM;  // as a call that succeeds may do
  tv->tv_sec = static_cast<time_t>(now / 1000000);
  tv->tv_usec = static_cast<suseconds_t>(now % 1000000);
  return 0;
}

ssize_t write(int fd, const void* data, size_t size) {
  ++write_calls;
  if (write_interruptions > 0) {
    --write_interruptions;
    errno = EINTR;
    return -1;
  }
  if (write_limit != 0 && size > write_limit) size = std::exchange(write_limit, 0);
  return syscall(SYS_write, fd, data, size);
}

namespace {

struct tm local_time(int year, int month, int day, int hour, int minute = 0, int second = 0) {
  struct tm when = {};
  when.tm_year = year - 1900;
  when.tm_mon = month - 1;
  when.tm_mday = day;
  when.tm_hour = hour;
  when.tm_min = minute;
  when.tm_sec = second;
  return when;
}

void set_clock(int year, int month, int day, int hour, int minute = 0, int second = 0,
               long micros = 0) {
  struct tm when = local_time(year, month, day, hour, minute, second);
  clock_now = timegm(&when) * 1000000LL + micros;
}

void expect_error(int code, const std::string& text, const std::function<void()>& action) {
  try {
    action();
    ADD_FAILURE() << "not thrown: " << text;
  } catch (const VrnException& e) {
    EXPECT_EQ(e.err(), code);
    EXPECT_EQ(e.what(), text);
  }
}

std::string slurp(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

std::vector<std::string> lines_of(const std::string& path) {
  std::istringstream text(slurp(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

// A directory of its own, the time zone UTC, and 15 November 2026, 13:05:09.042.
class LogTest : public testing::Test {
 public:
  LogTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    set_clock(2026, 11, 15, 13, 5, 9, 42000);
    char name[] = "/tmp/vornfc_log_test_XXXXXX";
    dir = mkdtemp(name);
  }
  ~LogTest() override { std::filesystem::remove_all(dir); }

 protected:
  std::string path(const std::string& name) const { return dir + "/" + name; }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // "<pid>-<tid> ", what every record has ahead of its message.
  static std::string ids() {
    return std::to_string(getpid()) + "-" + std::to_string(pthread_self()) + " ";
  }

  // The message of a record of this thread with the tag "app".
  static std::string message(const std::string& line) {
    const std::string before = "app-" + ids();
    const std::size_t at = line.find(before);
    return at == line.npos ? "no tag and ids in: " + line : line.substr(at + before.size());
  }

  std::vector<std::string> messages(const std::string& name) const {
    std::vector<std::string> result;
    for (const std::string& line : lines_of(path(name))) result.push_back(message(line));
    return result;
  }

  std::string dir;
};

using Texts = std::vector<std::string>;

// The layout of a record

TEST_F(LogTest, RecordHasTimeSymbolTagIdsAndMessage) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", MILLI);
  log.log(3, "Hello %s, %d", "world", 7);
  EXPECT_EQ(slurp(path("log")), "20261115-13:05:09.042 INFO app-" + ids() + "Hello world, 7\n");
}

TEST_F(LogTest, PrecisionDecidesTheFraction) {
  const std::map<int, std::string> fractions{
      {NONE, ""}, {MILLI, ".000"}, {MICRO, ".000042"}, {0, ""}, {4, ""}};
  for (const auto& [precision, fraction] : fractions) {
    set_clock(2026, 1, 2, 3, 4, 5, 42);
    const std::string name = path(std::to_string(precision));
    VrnLog log("app", name.c_str(), NEVER, 3, "", precision);
    log.log(1, "x");
    EXPECT_EQ(slurp(name), "20260102-03:04:05" + fraction + " ERR app-" + ids() + "x\n");
  }
}

TEST_F(LogTest, TimeFormatReplacesTheBuiltInOneAndKeepsTheFraction) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "%d.%m.%Y %H:%M", MILLI);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), "15.11.2026 13:05.042 INFO app-" + ids() + "x\n");
}

TEST_F(LogTest, NullTimeFormatIsTheBuiltInOne) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, nullptr, NONE);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), "20261115-13:05:09 INFO app-" + ids() + "x\n");
}

TEST_F(LogTest, TimeFormatWhoseResultDoesNotFitAddsNothing) {
  const std::string format(5000, 'y');
  VrnLog log("app", path("log").c_str(), NEVER, 3, format.c_str(), MILLI);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), ".042 INFO app-" + ids() + "x\n");
}

TEST_F(LogTest, LongestTimeStampLeavesRoomForNothingElse) {
  const std::string format(2047, 'y');
  VrnLog log("app", path("log").c_str(), NEVER, 3, format.c_str(), MILLI);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), format + "\n");
}

TEST_F(LogTest, LevelsAreNamedByTheirSymbols) {
  VrnLog log("app", path("log").c_str(), NEVER, 7, "", NONE);
  for (int level = -1; level <= 7; ++level) log.log(level, "x");
  std::string symbols;
  for (const std::string& line : lines_of(path("log"))) {
    symbols += line.substr(18, line.find(' ', 18) - 18) + " ";
  }
  EXPECT_EQ(symbols, "L-1 MUST ERR WARN INFO DBG TRC L6 L7 ");
}

TEST_F(LogTest, ThreadIdIsThatOfTheCaller) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  std::string id;
  std::thread([&] {
    id = std::to_string(pthread_self());
    log.log(3, "x");
  }).join();
  EXPECT_EQ(slurp(path("log")),
            "20261115-13:05:09 INFO app-" + std::to_string(getpid()) + "-" + id + " x\n");
}

TEST_F(LogTest, MessageIsCutSoThatTheRecordHas2047Characters) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", MILLI);
  const std::string head = "20261115-13:05:09.042 INFO app-" + ids();
  const std::size_t room = 2047 - head.size();
  std::string expected;
  for (const std::size_t length : {room - 1, room, room + 1, room + 5000}) {
    log.log(3, "%s", std::string(length, 'm').c_str());
    log.log(3, "%0*d", static_cast<int>(length), 0);
    expected += head + std::string(std::min(length, room), 'm') + "\n";
    expected += head + std::string(std::min(length, room), '0') + "\n";
  }
  EXPECT_EQ(slurp(path("log")), expected);
}

TEST_F(LogTest, LongTagIsCutLikeAnythingElse) {
  const std::string tag(3000, 't');
  VrnLog log(tag.c_str(), path("log").c_str(), NEVER, 3, "", NONE);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), ("20261115-13:05:09 INFO " + tag).substr(0, 2047) + "\n");
}

TEST_F(LogTest, PercentSignsInTextsAreText) {
  VrnLog log("100%s%n", path("log").c_str(), NEVER, 3, "%%n", NONE);
  log.log(3, "%s", "%s%n%99999d");
  EXPECT_EQ(slurp(path("log")), "%n INFO 100%s%n-" + ids() + "%s%n%99999d\n");
}

TEST_F(LogTest, LetterBehindAConversionIsText) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  log.log(3, "%ldd %luu %lxx %ds %ul %xd %sd", 5L, 6UL, 10UL, -7, 8U, 11U, "text");
  EXPECT_EQ(messages("log"), (Texts{"5d 6u ax -7s 8l bd textd"}));
}

// What it leaves of the text is the system's to tell.
TEST_F(LogTest, FormatThatEndsInAConversionLeavesAWholeRecord) {
#ifdef VORNFC_TEST_TSAN
  GTEST_SKIP() << "the sanitizer's vsnprintf() ends the process";
#endif
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  for (const char* const format : {"full: 100%", "full: 100%l"}) log.log(3, format, 0L);
  log.log(3, "next");
  const Texts found = messages("log");
  ASSERT_EQ(found.size(), 3u);
  for (const size_t i : {0u, 1u}) {
    EXPECT_EQ(std::string("full: 100%l").compare(0, found[i].size(), found[i]), 0) << found[i];
  }
  EXPECT_EQ(found[2], "next");
}

TEST_F(LogTest, NullFormatIsSaidSo) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  const char* format = nullptr;
  log.log(3, format, 1);
  EXPECT_EQ(messages("log"), Texts{"<NULL>"});
}

TEST_F(LogTest, MessageThatCannotBeFormattedLeavesAWholeRecord) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  const wchar_t no_character[] = {static_cast<wchar_t>(0xd800), 0};
  log.log(3, "before %ls after", no_character);
  log.log(3, "next");
  const Texts found = messages("log");
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(std::string("before ").compare(0, found[0].size(), found[0]), 0) << found[0];
  EXPECT_EQ(found[1], "next");
}

TEST_F(LogTest, ErrnoIsLeftAloneAndPrintedByPercentM) {
  VrnLog log("app", path("log").c_str(), HOURLY, 3, "", NONE);
  const char* format = "%m";  // beyond ISO C++, so not checked by the compiler
  errno = ENOTDIR;
  log.log(3, format, 0);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(messages("log-26111513"), Texts{std::strerror(ENOTDIR)});
}

TEST_F(LogTest, VaListFormWritesTheSameRecord) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  const auto forward = [&log](const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    log.log(ap, 3, fmt);
    va_end(ap);
  };
  forward("%d and %s", 1, "two");
  EXPECT_EQ(messages("log"), Texts{"1 and two"});
}

TEST_F(LogTest, ARecordIsOneWrite) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  const int before = write_calls;
  log.log(3, "%s", std::string(5000, 'm').c_str());
  EXPECT_EQ(write_calls, before + 1);
}

TEST_F(LogTest, AnInterruptedWriteIsTriedAgain) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  write_interruptions = 2;
  log.log(3, "once");
  EXPECT_EQ(messages("log"), Texts{"once"});
}

TEST_F(LogTest, AWriteThatTakesAPartIsFollowedByTheRest) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  write_limit = 10;
  log.log(3, "the whole of it");
  log.log(3, "next");
  EXPECT_EQ(messages("log"), (Texts{"the whole of it", "next"}));
}

TEST_F(LogTest, ARecordAllocatesNothing) {
  REQUIRE_COUNTED_ALLOCATIONS();
  VrnLog log("app", path("log").c_str(), HOURLY, 3, "%c", MICRO);
  log.log(3, "opens the file");
  const long before = sys::allocations();
  log.log(3, "%s %d", "second", 2);
  EXPECT_EQ(sys::allocations(), before);
}

// Levels

TEST_F(LogTest, RecordsAboveTheLevelAreDropped) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  log.log(4, "dropped");
  log.log(3, "written");
  log.log(0, "too");
  EXPECT_EQ(messages("log"), (Texts{"written", "too"}));
}

// Calls through a pointer never take the short form that stands in the header.
TEST_F(LogTest, RecordsAboveTheLevelAreDroppedByTheFunctionItself) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  void (VrnLog::*const write_record)(int, const char*, ...) = &VrnLog::log;
  (log.*write_record)(4, "dropped");
  (log.*write_record)(3, "kept %d", 1);
  EXPECT_EQ(messages("log"), (Texts{"kept 1"}));
}

TEST_F(LogTest, LevelReturnsTheFormerOne) {
  VrnLog log("app", path("log").c_str(), NEVER, 2, "", NONE);
  EXPECT_EQ(log.level("5"), 2);
  EXPECT_EQ(log.level(4), 5);
  EXPECT_EQ(log.level("7x"), 4);
  EXPECT_EQ(log.level("trc"), 7);
  EXPECT_EQ(log.level(""), 5);
  EXPECT_EQ(log.level(1), 3);
  EXPECT_EQ(log.level(nullptr), 1);
  EXPECT_EQ(log.level("L9"), 3);
  EXPECT_EQ(log.level("99999999999999999999"), 9);
  EXPECT_EQ(log.level(3), INT_MAX);
}

TEST_F(LogTest, LevelBelowOneIsRefusedAndChangesNothing) {
  VrnLog log("app", path("log").c_str(), NEVER, 4, "", NONE);
  expect_error(9, "Invalid VrnLog trace level (0)", [&] { log.level("0"); });
  expect_error(9, "Invalid VrnLog trace level (0)", [&] { log.level(0); });
  expect_error(9, "Invalid VrnLog trace level (-1)", [&] { log.level(-1); });
  expect_error(9, "Invalid VrnLog trace level (MUST)", [&] { log.level("MUST"); });
  expect_error(9, "Invalid VrnLog trace level (loud)", [&] { log.level("loud"); });
  expect_error(9, "Invalid VrnLog trace level ( 5)", [&] { log.level(" 5"); });
  EXPECT_EQ(log.level(3), 4);
}

TEST_F(LogTest, ConstructorTakesTheLevelAsItIs) {
  VrnLog log("app", path("log").c_str(), NEVER, 0, "", NONE);
  log.log(1, "dropped");
  log.log(0, "written");
  EXPECT_EQ(messages("log"), Texts{"written"});
}

// Tags and file names

TEST_F(LogTest, DirectoryGetsAFileNamedByTheTag) {
  VrnLog log("app", dir.c_str(), DAILY, 3, "", MILLI);
  EXPECT_EQ(files(), Texts{});
  log.log(3, "x");
  EXPECT_EQ(files(), Texts{"app-26111513"});
  EXPECT_EQ(slurp(path("app-26111513")), "20261115-13:05:09.042 INFO " + ids() + "x\n");
}

TEST_F(LogTest, DirectoryWithoutCyclingHasNoStampInTheName) {
  VrnLog log("app", dir.c_str(), NEVER, 3, "", MILLI);
  EXPECT_EQ(files(), Texts{"app"});
}

TEST_F(LogTest, DefaultTagIsTheProgramName) {
  char program[] = "mydaemon";
  gnl_prognam = program;
  VrnLog empty("", path("empty").c_str(), NEVER, 3, "", NONE);
  VrnLog null(nullptr, path("null").c_str(), NEVER, 3, "", NONE);
  empty.log(3, "x");
  null.log(3, "x");
  EXPECT_EQ(slurp(path("empty")), "20261115-13:05:09 INFO mydaemon-" + ids() + "x\n");
  EXPECT_EQ(slurp(path("null")), "20261115-13:05:09 INFO mydaemon-" + ids() + "x\n");
}

TEST_F(LogTest, TagWithoutProgramNameIsUnknown) {
  gnl_prognam = nullptr;
  VrnLog log("", path("log").c_str(), NEVER, 3, "", NONE);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), "20261115-13:05:09 INFO Unknown-" + ids() + "x\n");
}

TEST_F(LogTest, DefaultFileIsInTheHomeDirectory) {
  setenv("HOME", dir.c_str(), 1);
  VrnLog empty("app", "", NEVER, 3, "", NONE);
  VrnLog null("app", nullptr, HOURLY, 3, "", NONE);
  null.log(3, "x");
  EXPECT_EQ(files(), (Texts{"VORN.LOG", "VORN.LOG-26111513"}));
}

TEST_F(LogTest, DefaultFileWithoutHomeIsInTmp) {
  unsetenv("HOME");
  set_clock(2091, 3, 4, 5);  // a file name that nobody else uses
  const std::string name = "/tmp/VORN.LOG-91030405";
  std::remove(name.c_str());
  VrnLog log("app", "", HOURLY, 3, "", NONE);
  log.log(3, "x");
  EXPECT_EQ(lines_of(name).size(), 1u);
  std::remove(name.c_str());
}

TEST_F(LogTest, ExistingFileIsAppendedTo) {
  std::ofstream(path("log")) << "before\n";
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), "before\n20261115-13:05:09 INFO app-" + ids() + "x\n");
}

TEST_F(LogTest, PathThatCannotBeExaminedIsRefused) {
  std::ofstream(path("file")) << "x\n";
  const std::string name = path("file") + "/log";
  expect_error(2, "Failed to stat logfile=" + name,
               [&] { VrnLog log("app", name.c_str(), HOURLY, 3, "", NONE); });
}

TEST_F(LogTest, FileThatCannotBeOpenedIsRefused) {
  const std::string name = path("missing/log");
  expect_error(2, "Failed to open logfile=" + name,
               [&] { VrnLog log("app", name.c_str(), NEVER, 3, "", NONE); });
}

TEST_F(LogTest, FilesAreCloseOnExec) {
  VrnLog fixed("app", path("fixed").c_str(), NEVER, 3, "", NONE);
  VrnLog cycled("app", path("cycled").c_str(), HOURLY, 3, "", NONE);
  cycled.log(3, "x");
  int found = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    if (target.compare(0, dir.size(), dir) != 0) continue;
    ++found;
    EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC) << target;
  }
  EXPECT_EQ(found, 2);
}

// Cycling

TEST_F(LogTest, HourlyLogStartsAFileEveryHour) {
  VrnLog log("app", path("log").c_str(), HOURLY, 3, "", NONE);
  set_clock(2026, 11, 15, 13, 59, 59);
  log.log(3, "a");
  set_clock(2026, 11, 15, 14);
  log.log(3, "b");
  set_clock(2026, 11, 15, 14, 59);
  log.log(3, "c");
  set_clock(2026, 11, 16, 14, 59);
  log.log(3, "d");
  EXPECT_EQ(files(), (Texts{"log-26111513", "log-26111514", "log-26111614"}));
  EXPECT_EQ(messages("log-26111513"), Texts{"a"});
  EXPECT_EQ(messages("log-26111514"), (Texts{"b", "c"}));
  EXPECT_EQ(messages("log-26111614"), Texts{"d"});
}

TEST_F(LogTest, DailyFileIsNamedByTheHourOfItsFirstRecord) {
  VrnLog log("app", path("log").c_str(), DAILY, 3, "", NONE);
  set_clock(2026, 11, 15, 13, 59);
  log.log(3, "a");
  set_clock(2026, 11, 15, 14);
  log.log(3, "b");
  set_clock(2026, 11, 16, 7);
  log.log(3, "c");
  EXPECT_EQ(files(), (Texts{"log-26111513", "log-26111607"}));
  EXPECT_EQ(messages("log-26111513"), (Texts{"a", "b"}));
}

TEST_F(LogTest, MonthlyFileIsNamedByTheDayAndHourOfItsFirstRecord) {
  VrnLog log("app", path("log").c_str(), MONTHLY, 3, "", NONE);
  set_clock(2026, 11, 15, 13);
  log.log(3, "a");
  set_clock(2026, 11, 30, 23);
  log.log(3, "b");
  set_clock(2026, 12, 1, 0);
  log.log(3, "c");
  EXPECT_EQ(files(), (Texts{"log-26111513", "log-26120100"}));
  EXPECT_EQ(messages("log-26111513"), (Texts{"a", "b"}));
}

TEST_F(LogTest, WidthOnlyPadsTheStamp) {
  set_clock(2000, 1, 2, 3);
  for (const int frequency : {HOURLY, DAILY, MONTHLY}) {
    const std::string stem = path(std::to_string(frequency));
    VrnLog log("app", stem.c_str(), frequency, 3, "", NONE);
    log.log(3, "x");
  }
  EXPECT_EQ(files(), (Texts{"2-00010203", "3-010203", "4-10203"}));
}

TEST_F(LogTest, CycleTellsWhetherItStartedAFile) {
  VrnLog log("app", path("log").c_str(), DAILY, 3, "", NONE);
  struct tm morning = local_time(2026, 11, 15, 8);
  struct tm evening = local_time(2026, 11, 15, 20);
  struct tm tomorrow = local_time(2026, 11, 16, 8);
  EXPECT_TRUE(log.cycle(&morning));
  EXPECT_FALSE(log.cycle(&evening));
  EXPECT_TRUE(log.cycle(&tomorrow));
  EXPECT_EQ(files(), (Texts{"log-26111508", "log-26111608"}));
}

TEST_F(LogTest, LogThatNeverCyclesDoesNotLookAtTheTime) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  EXPECT_FALSE(log.cycle(nullptr));
}

TEST_F(LogTest, NullTimeIsRefused) {
  VrnLog log("app", path("log").c_str(), DAILY, 3, "", NONE);
  expect_error(3, "VrnLog.cycle: Null time", [&] { log.cycle(nullptr); });
}

TEST_F(LogTest, InvalidFrequencyIsRefusedByCycleAndByRecords) {
  for (const int frequency : {0, 5, -1}) {
    VrnLog log("app", path("log").c_str(), frequency, 3, "", NONE);
    struct tm now = local_time(2026, 11, 15, 8);
    const std::string text = "Invalid Logger frequency=" + std::to_string(frequency);
    expect_error(6, text, [&] { log.cycle(&now); });
    expect_error(6, text, [&] { log.log(3, "x"); });
    EXPECT_NO_THROW(log.log(4, "filtered out"));
  }
  EXPECT_EQ(files(), Texts{});
}

TEST_F(LogTest, RecordThatIsFilteredOutCyclesNoFile) {
  VrnLog log("app", path("log").c_str(), HOURLY, 3, "", NONE);
  log.log(4, "x");
  EXPECT_EQ(files(), Texts{});
}

// Files that fail

TEST_F(LogTest, RecordsResumeInTheRightFileAfterAFailedCycle) {
  const std::string away = dir + ".away";
  VrnLog log("app", path("log").c_str(), DAILY, 3, "", NONE);
  set_clock(2026, 11, 15, 23);
  log.log(3, "a");
  std::filesystem::rename(dir, away);
  set_clock(2026, 11, 16, 0);
  errno = ENOTDIR;
  expect_error(2, "Failed to open logfile=" + path("log-26111600"), [&] { log.log(3, "lost"); });
  EXPECT_EQ(errno, ENOTDIR);
  set_clock(2026, 11, 16, 1);
  expect_error(2, "Failed to open logfile=" + path("log-26111601"), [&] { log.log(3, "lost"); });
  std::filesystem::rename(away, dir);
  set_clock(2026, 11, 16, 2);
  log.log(3, "b");
  set_clock(2026, 11, 16, 3);
  log.log(3, "c");
  EXPECT_EQ(files(), (Texts{"log-26111523", "log-26111602"}));
  EXPECT_EQ(messages("log-26111523"), Texts{"a"});
  EXPECT_EQ(messages("log-26111602"), (Texts{"b", "c"}));
}

TEST_F(LogTest, FailedCycleIsReportedEveryTimeAndTriedAgain) {
  VrnLog log("app", path("log").c_str(), HOURLY, 3, "", NONE);
  struct tm now = local_time(2026, 11, 15, 8);
  const std::string away = dir + ".away";
  std::filesystem::rename(dir, away);
  for (int i = 0; i < 2; ++i) {
    expect_error(2, "Failed to open logfile=" + path("log-26111508"), [&] { log.cycle(&now); });
  }
  std::filesystem::rename(away, dir);
  EXPECT_TRUE(log.cycle(&now));
  EXPECT_FALSE(log.cycle(&now));
}

TEST_F(LogTest, RecordsResumeWhenThereAreDescriptorsAgain) {
  VrnLog log("app", path("log").c_str(), HOURLY, 3, "", NONE);
  // A sanitizer needs descriptors to look at a type for the first time.
  EXPECT_THROW(VrnLog("app", "/nowhere/log", 1, 3, "", NONE), VrnException);
  struct rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  struct rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_THROW(log.log(3, "lost"), VrnException);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  log.log(3, "written");
  EXPECT_EQ(messages("log-26111513"), Texts{"written"});
}

// Limits what a file may hold, as a full disk does, to the end of the scope.
class FullDisk {
 public:
  explicit FullDisk(rlim_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before);
    struct rlimit limit = before;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;
  ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before); }

 private:
  struct rlimit before;
};

TEST_F(LogTest, FullDiskTearsOneLineAndTheNextRecordStartsANewOne) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  log.log(3, "a");
  const std::string whole = slurp(path("log"));
  {
    const FullDisk full(whole.size() + 10);
    log.log(3, "torn");
    log.log(3, "lost");
    log.log(3, "lost");
  }
  log.log(3, "b");
  log.log(3, "c");
  const std::string head = "20261115-13:05:09 INFO app-" + ids();
  EXPECT_EQ(slurp(path("log")), whole + "20261115-1\n" + head + "b\n" + head + "c\n");
}

TEST_F(LogTest, DiskThatIsFullBetweenRecordsTearsNothing) {
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  log.log(3, "a");
  {
    const FullDisk full(std::filesystem::file_size(path("log")));
    log.log(3, "lost");
  }
  log.log(3, "b");
  EXPECT_EQ(messages("log"), (Texts{"a", "b"}));
}

TEST_F(LogTest, TornLineOfAnEarlierProcessIsNotContinued) {
  std::ofstream(path("log")) << "whole\ntorn";
  VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE);
  log.log(3, "x");
  EXPECT_EQ(slurp(path("log")), "whole\ntorn\n20261115-13:05:09 INFO app-" + ids() + "x\n");
}

TEST_F(LogTest, StreamOnAFullDiskKeepsNothingBack) {
  std::FILE* stream = std::fopen(path("log").c_str(), "w");
  ASSERT_TRUE(stream);
  {
    VrnLog log(stream, 3, "", NONE);
    log.log(3, "a");
    {
      const FullDisk full(std::filesystem::file_size(path("log")) + 10);
      log.log(3, "torn");
      log.log(3, "lost");
    }
    log.log(3, "b");
  }
  std::fclose(stream);
  const std::string head = "20261115-13:05:09 INFO " + ids();
  EXPECT_EQ(slurp(path("log")), head + "a\n20261115-1\n" + head + "b\n");
}

TEST_F(LogTest, RecordsToAFullDeviceAreLostInSilence) {
  VrnLog log("app", "/dev/full", NEVER, 3, "", NONE);
  std::FILE* stream = std::fopen("/dev/full", "w");
  ASSERT_TRUE(stream);
  VrnLog stream_log(stream, 3, "", NONE);
  for (int i = 0; i < 3; ++i) {
    EXPECT_NO_THROW(log.log(3, "x"));
    EXPECT_NO_THROW(stream_log.log(3, "x"));
  }
  EXPECT_EQ(std::fclose(stream), 0) << "a record was left in the stream's buffer";
}

// Logs on streams

TEST_F(LogTest, StreamLogHasNoTagAndLeavesTheStreamOpen) {
  std::FILE* stream = std::fopen(path("log").c_str(), "w");
  ASSERT_TRUE(stream);
  {
    VrnLog log(stream, 3, "", MILLI);
    log.log(3, "x");
    EXPECT_EQ(slurp(path("log")), "20261115-13:05:09.042 INFO " + ids() + "x\n");
    EXPECT_FALSE(log.cycle(nullptr));
  }
  EXPECT_GE(std::fputs("still open\n", stream), 0);
  EXPECT_EQ(std::fclose(stream), 0);
  EXPECT_EQ(lines_of(path("log")).back(), "still open");
}

TEST_F(LogTest, StreamLogOnStandardErrorLeavesItOpen) {
  LogCapture captured;
  { VrnLog log(stderr, 3, "", NONE); }
  std::fputs("still open\n", stderr);
  EXPECT_EQ(captured.raw(), "still open\n");
}

TEST_F(LogTest, StreamWithoutADescriptorWorks) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* stream = open_memstream(&text, &size);
  {
    VrnLog log(stream, 3, "", NONE);
    log.log(3, "x");
    EXPECT_EQ(text, "20261115-13:05:09 INFO " + ids() + "x\n");
  }
  std::fclose(stream);
  std::free(text);
}

TEST_F(LogTest, LogOnANullStreamDropsItsRecords) {
  VrnLog log(nullptr, 5, "", NONE);
  EXPECT_NO_THROW(log.log(3, "x"));
}

TEST_F(LogTest, ThreadThatHoldsTheStreamMayLog) {
  std::FILE* stream = std::fopen(path("log").c_str(), "w");
  ASSERT_TRUE(stream);
  VrnLog log(stream, 3, "", NONE);
  const auto log_often = [&](bool hold) {
    for (int i = 0; i < 2000; ++i) {
      if (hold) flockfile(stream);
      log.log(3, "x");
      if (hold) funlockfile(stream);
    }
  };
  std::thread holder(log_often, true);
  log_often(false);
  holder.join();
  std::fclose(stream);
  EXPECT_EQ(lines_of(path("log")).size(), 4000u);
}

// The end of a log

TEST_F(LogTest, ShutdownIsRecordedAtLevel4) {
  { VrnLog log("app", path("log").c_str(), NEVER, 4, "", NONE); }
  unsigned flog = 0;
  const Texts found = messages("log");
  ASSERT_EQ(found.size(), 1u);
  std::sscanf(found[0].c_str(), "Logger Shutdown - flog=0x%x", &flog);
  EXPECT_NE(flog, 0u);
  char expected[80];
  std::snprintf(expected, sizeof expected, "Logger Shutdown - flog=0x%x, owner=Yes", flog);
  EXPECT_EQ(found[0], expected);
  EXPECT_NE(slurp(path("log")).find(" DBG app-"), std::string::npos);
}

TEST_F(LogTest, ShutdownIsNotRecordedBelowLevel4) {
  { VrnLog log("app", path("log").c_str(), NEVER, 3, "", NONE); }
  EXPECT_EQ(slurp(path("log")), "");
}

TEST_F(LogTest, ShutdownOfAStreamLogNamesTheStream) {
  std::FILE* stream = std::fopen(path("log").c_str(), "w");
  ASSERT_TRUE(stream);
  { VrnLog log(stream, 4, "", NONE); }
  char expected[80];
  std::snprintf(expected, sizeof expected, "Logger Shutdown - flog=0x%x, owner=No\n",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(stream)));
  EXPECT_EQ(slurp(path("log")), "20261115-13:05:09 DBG " + ids() + expected);
  std::fclose(stream);
}

TEST_F(LogTest, ShutdownOfACyclingLogOpensItsFile) {
  { VrnLog log("app", path("log").c_str(), HOURLY, 4, "", NONE); }
  EXPECT_EQ(messages("log-26111513"), Texts{"Logger Shutdown - flog=0x0, owner=Yes"});
}

TEST_F(LogTest, ShutdownThatCannotBeRecordedIsReported) {
  LogCapture captured;
  std::filesystem::create_directory(path("sub"));
  {
    VrnLog log("app", path("sub/log").c_str(), HOURLY, 4, "", NONE);
    std::filesystem::remove(path("sub"));
  }
  EXPECT_EQ(captured.lines(),
            Texts{"VrnLog: Failed to record the shutdown [VrnException: Error=2 (errno=2) - "
                  "Failed to open logfile=" +
                  path("sub/log-26111513") + "]"});
}

// Threads

// Eight threads write a million records over some ten hours of hourly files. Every record arrives
// whole, once, in the file of its hour, and in the order of its thread.
TEST_F(LogTest, ThreadsLoseAndMixNoRecordWhileFilesCycle) {
  constexpr int THREADS = 8;
  constexpr int RECORDS = 125000;
  set_clock(2026, 11, 15, 6);
  clock_step = 36000;
  {
    VrnLog log("app", path("log").c_str(), HOURLY, 3, "%y%m%d%H", NONE);
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int number = 0; number < THREADS; ++number) {
      threads.emplace_back([&log, number] {
        for (int record = 0; record < RECORDS; ++record) log.log(3, "%d:%d.", number, record);
      });
    }
    std::thread level_changes([&log] {
      for (int i = 0; i < 1000; ++i) log.level(3 + i % 2);
    });
    for (std::thread& thread : threads) thread.join();
    level_changes.join();
    log.level(3);  // no shutdown record
  }
  clock_step = 0;

  std::vector<int> next(THREADS, 0);
  const std::string before = " INFO app-" + std::to_string(getpid()) + "-";
  for (const std::string& name : files()) {
    for (const std::string& line : lines_of(path(name))) {
      ASSERT_EQ(line.substr(0, 8), name.substr(4)) << line;
      ASSERT_EQ(line.compare(8, before.size(), before), 0) << line;
      int number = -1;
      int record = -1;
      int end = 0;
      const char* ids_and_message = line.c_str() + 8 + before.size();
      std::sscanf(ids_and_message, "%*u %d:%d.%n", &number, &record, &end);
      ASSERT_EQ(static_cast<std::size_t>(end), std::strlen(ids_and_message)) << line;
      ASSERT_TRUE(number >= 0 && number < THREADS) << line;
      ASSERT_EQ(record, next[static_cast<std::size_t>(number)]++) << line;
    }
  }
  EXPECT_EQ(next, std::vector<int>(THREADS, RECORDS));
  EXPECT_EQ(files().size(), 10u);
}

}  // namespace
