// The ways to a logger: words, a configuration group, the environment, a record of settings.

#include "support/log_capture.h"
#include "vornfc/config.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

using vornfc::VrnConfig;
using vornfc::VrnException;
using vornfc::VrnLog;
using vornfc::VrnLogSpec;

namespace {

using Log = std::unique_ptr<VrnLog>;

class LogSpecTest : public testing::Test {
 public:
  LogSpecTest() {
    setenv("TZ", "UTC", 1);
    char name[] = "/tmp/vornfc_log_spec_test_XXXXXX";
    dir = mkdtemp(name);
    file = dir + "/log";
  }
  ~LogSpecTest() override { std::filesystem::remove_all(dir); }

 protected:
  static void expect_error(int code, const std::string& text, const std::function<void()>& action) {
    try {
      action();
      ADD_FAILURE() << "not thrown: " << text;
    } catch (const VrnException& e) {
      EXPECT_EQ(e.err(), code);
      EXPECT_EQ(e.what(), text);
    }
  }

  static std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // A log on `file`, everything but the words given being absent.
  Log with(const char* level, const char* timeprec, const char* cyclefreq) const {
    return Log(VrnLog::create("app", file.c_str(), level, nullptr, timeprec, cyclefreq));
  }

  // "<pid>-<tid> x", the end of every record here.
  static std::string ids_and_x() {
    return std::to_string(getpid()) + "-" + std::to_string(pthread_self()) + " x\n";
  }

  // The text with a 9 for every digit.
  static std::string shape(std::string text) {
    for (char& c : text) {
      if (std::isdigit(static_cast<unsigned char>(c))) c = '9';
    }
    return text;
  }

  // The level that a log was made with.
  static int level_of(const Log& log) { return log->level(3); }

  // The shapes of the names of the files that one record of the log leaves.
  std::string names_after_record(const Log& log) const {
    log->log(0, "x");
    std::string names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      names += entry.path().filename().string() + " ";
    }
    return shape(names);
  }

  // The shape of the fraction in the first record, which is then removed with its file.
  std::string fraction_after_record(const Log& log) const {
    log->log(0, "x");
    const std::string stamp = slurp(file).substr(17);
    std::filesystem::remove(file);
    return shape(stamp.substr(0, stamp.find(' ')));
  }

  VrnConfig config(const std::string& text) const {
    const std::string name = dir + "/config";
    std::ofstream(name) << text;
    return VrnConfig(name);
  }

  std::string dir;
  std::string file;
};

// Levels

TEST_F(LogSpecTest, LevelIsANumberOrASymbol) {
  EXPECT_EQ(level_of(with("5", nullptr, nullptr)), 5);
  EXPECT_EQ(level_of(with("7x", nullptr, nullptr)), 7);
  EXPECT_EQ(level_of(with("dbg", nullptr, nullptr)), 4);
}

TEST_F(LogSpecTest, AbsentLevelIs3) {
  EXPECT_EQ(level_of(with(nullptr, nullptr, nullptr)), 3);
  EXPECT_EQ(level_of(with("", nullptr, nullptr)), 3);
}

TEST_F(LogSpecTest, LevelBelowOneIsRefused) {
  for (const char* level : {"0", "00x", "-1", "MUST", "loud", " 5"}) {
    expect_error(9, std::string("Invalid VrnLog trace level (") + level + ")",
                 [&] { with(level, nullptr, nullptr); });
  }
  EXPECT_FALSE(std::filesystem::exists(file));
}

// Precisions

TEST_F(LogSpecTest, PrecisionIsAWordInEitherCase) {
  EXPECT_EQ(fraction_after_record(with(nullptr, "None", nullptr)), "");
  EXPECT_EQ(fraction_after_record(with(nullptr, "milli", nullptr)), ".999");
  EXPECT_EQ(fraction_after_record(with(nullptr, "MICRO", nullptr)), ".999999");
}

TEST_F(LogSpecTest, AbsentPrecisionIsMilli) {
  EXPECT_EQ(fraction_after_record(with(nullptr, nullptr, nullptr)), ".999");
  EXPECT_EQ(fraction_after_record(with(nullptr, "", nullptr)), ".999");
}

TEST_F(LogSpecTest, OtherPrecisionsAreRefused) {
  expect_error(9, "Invalid VrnLog precision (NANO)", [&] { with(nullptr, "NANO", nullptr); });
  expect_error(9, "Invalid VrnLog precision (MILLI )", [&] { with(nullptr, "MILLI ", nullptr); });
}

// Cycle frequencies

TEST_F(LogSpecTest, CycleFrequencyIsAWordInEitherCase) {
  for (const char* word : {"hourly", "Daily", "MONTHLY"}) {
    EXPECT_EQ(names_after_record(with(nullptr, nullptr, word)), "log-99999999 ") << word;
  }
}

TEST_F(LogSpecTest, AbsentCycleFrequencyIsNever) {
  for (const char* word : {"never", "NEVER", "", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(names_after_record(with(nullptr, nullptr, word)), "log ");
  }
}

TEST_F(LogSpecTest, OtherCycleFrequenciesAreRefused) {
  expect_error(9, "Invalid VrnLog cycle-frequency (WEEKLY)",
               [&] { with(nullptr, nullptr, "WEEKLY"); });
}

TEST_F(LogSpecTest, LevelIsCheckedBeforePrecisionBeforeCycleFrequency) {
  expect_error(9, "Invalid VrnLog trace level (0)", [&] { with("0", "X", "Y"); });
  expect_error(9, "Invalid VrnLog precision (X)", [&] { with("1", "X", "Y"); });
}

// Destinations

TEST_F(LogSpecTest, StderrIsTheStandardErrorStream) {
  LogCapture captured;
  Log(VrnLog::create("app", "stderr", nullptr, "T", "NONE", "DAILY"))->log(0, "x");
  EXPECT_EQ(captured.raw(), "T MUST " + ids_and_x());
}

TEST_F(LogSpecTest, StdoutIsTheStandardOutputStream) {
  std::fflush(stdout);
  const int saved = dup(1);
  std::FILE* out = std::freopen(file.c_str(), "w", stdout);
  Log(VrnLog::create(nullptr, "StdOut", nullptr, "T", "NONE", nullptr))->log(0, "x");
  dup2(saved, 1);
  close(saved);
  ASSERT_TRUE(out);
  EXPECT_EQ(slurp(file), "T MUST " + ids_and_x());
}

TEST_F(LogSpecTest, StreamWordsDoNotExcuseABadCycleFrequency) {
  expect_error(9, "Invalid VrnLog cycle-frequency (X)",
               [] { VrnLog::create(nullptr, "STDERR", nullptr, nullptr, nullptr, "X"); });
}

TEST_F(LogSpecTest, ErrorsOfTheFileComeThrough) {
  expect_error(2, "Failed to open logfile=" + dir + "/missing/log", [&] {
    VrnLog::create("app", (dir + "/missing/log").c_str(), nullptr, nullptr, nullptr, nullptr);
  });
}

// Configuration groups

TEST_F(LogSpecTest, GroupItemsMakeTheLogger) {
  VrnConfig cfg = config("[Log]\nfilename=" + file +
                         ";unused\nLEVEL=4\nTimefmt=at %Y\nTIMEPREC=none\nCYCLEFREQ=Hourly\n"
                         "APPTAG=not read\nPRELIMS=not read\n");
  const Log log(VrnLog::configCreate(&cfg, "log", "tag"));
  log->log(4, "x");
  EXPECT_EQ(level_of(log), 4);
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().filename() == "config") continue;
    EXPECT_EQ(shape(entry.path().filename()), "log-99999999");
    EXPECT_EQ(shape(slurp(entry.path())), shape("at 2026 DBG tag-" + ids_and_x()));
  }
}

TEST_F(LogSpecTest, MissingGroupIsRefusedOnlyWithoutATag) {
  setenv("HOME", dir.c_str(), 1);
  VrnConfig cfg = config("[Other]\n");
  expect_error(9, "Config: Logger group=log is missing",
               [&] { VrnLog::configCreate(&cfg, "log", nullptr); });
  for (const char* tag : {"x", ""}) {
    const Log log(VrnLog::configCreate(&cfg, "log", tag));
    EXPECT_EQ(level_of(log), 3);
    EXPECT_TRUE(std::filesystem::remove(dir + "/VORN.LOG"));
  }
}

TEST_F(LogSpecTest, GroupWithoutItemsGivesTheDefaults) {
  setenv("HOME", dir.c_str(), 1);
  VrnConfig cfg = config("[log]\n");
  EXPECT_EQ(level_of(Log(VrnLog::configCreate(&cfg, "log", nullptr))), 3);
  EXPECT_TRUE(std::filesystem::exists(dir + "/VORN.LOG"));
}

TEST_F(LogSpecTest, BadItemsOfAGroupAreRefused) {
  VrnConfig cfg = config("[a]\nLEVEL=0\n[b]\nTIMEPREC=X\n[c]\nCYCLEFREQ=Y\n");
  expect_error(9, "Invalid VrnLog trace level (0)", [&] { VrnLog::configCreate(&cfg, "a", ""); });
  expect_error(9, "Invalid VrnLog precision (X)", [&] { VrnLog::configCreate(&cfg, "b", ""); });
  expect_error(9, "Invalid VrnLog cycle-frequency (Y)",
               [&] { VrnLog::configCreate(&cfg, "c", ""); });
}

TEST_F(LogSpecTest, NullConfigurationIsRefused) {
  expect_error(3, "VrnLog.configCreate: Null VrnConfig for group=log",
               [] { VrnLog::configCreate(nullptr, "log", "x"); });
}

// The environment

TEST_F(LogSpecTest, SettingsHaveTheirNames) {
  EXPECT_STREQ(VrnLog::CFG_PRELIMS, "PRELIMS");
  EXPECT_STREQ(VrnLog::CFG_CYCLEFREQ, "CYCLEFREQ");
  EXPECT_STREQ(VrnLog::CFG_TIMEPREC, "TIMEPREC");
  EXPECT_STREQ(VrnLog::CFG_TIMEFMT, "TIMEFMT");
  EXPECT_STREQ(VrnLog::CFG_LEVEL, "LEVEL");
  EXPECT_STREQ(VrnLog::CFG_FILENAME, "FILENAME");
  EXPECT_STREQ(VrnLog::CFG_APPTAG, "APPTAG");
}

TEST_F(LogSpecTest, EnvironmentNamesHaveThePrefix) {
  EXPECT_EQ(VrnLog::envname("LEVEL"), "VORNTRC_LEVEL");
  EXPECT_EQ(VrnLog::envname(""), "VORNTRC_");
  const char* null = nullptr;
  EXPECT_THROW(VrnLog::envname(null), std::logic_error);
}

TEST_F(LogSpecTest, VariablesMakeTheDefaultLogger) {
  setenv("VORNTRC_APPTAG", "env", 1);
  setenv("VORNTRC_FILENAME", file.c_str(), 1);
  setenv("VORNTRC_LEVEL", "TRC", 1);
  setenv("VORNTRC_TIMEFMT", "T", 1);
  setenv("VORNTRC_TIMEPREC", "none", 1);
  setenv("VORNTRC_CYCLEFREQ", "never", 1);
  Log log(VrnLog::defaultCreate());
  log->log(5, "x");
  EXPECT_EQ(slurp(file), "T TRC env-" + ids_and_x());
}

TEST_F(LogSpecTest, NoVariablesGiveTheDefaults) {
  for (const char* key : {"APPTAG", "FILENAME", "LEVEL", "TIMEFMT", "TIMEPREC", "CYCLEFREQ"}) {
    unsetenv(VrnLog::envname(key).c_str());
  }
  setenv("HOME", dir.c_str(), 1);
  Log log(VrnLog::defaultCreate());
  log->log(3, "x");
  EXPECT_EQ(shape(slurp(dir + "/VORN.LOG")),
            shape("20261115-13:05:09.042 INFO Unknown-" + ids_and_x()));
  EXPECT_EQ(level_of(log), 3);
}

TEST_F(LogSpecTest, BadVariableIsRefused) {
  setenv("VORNTRC_LEVEL", "0", 1);
  expect_error(9, "Invalid VrnLog trace level (0)", [] { VrnLog::defaultCreate(); });
}

// VrnLogSpec

TEST_F(LogSpecTest, SpecStartsWithTheDefaults) {
  const VrnLogSpec spec;
  EXPECT_EQ(spec.logger, nullptr);
  EXPECT_EQ(spec.stream, nullptr);
  EXPECT_EQ(spec.apptag + spec.filename + spec.timefmt, "");
  EXPECT_EQ(spec.level, 3);
  EXPECT_EQ(spec.cyclefreq, 1);
  EXPECT_EQ(spec.timeprec, 2);
}

TEST_F(LogSpecTest, SpecHandsOverItsLogger) {
  const Log log = with(nullptr, nullptr, nullptr);
  VrnLogSpec spec;
  spec.logger = log.get();
  spec.stream = stderr;
  EXPECT_EQ(spec.synthesise(), log.get());
  EXPECT_EQ(spec.logger, log.get());
}

TEST_F(LogSpecTest, SpecWithAStreamMakesAStreamLogger) {
  std::FILE* stream = std::fopen(file.c_str(), "w");
  ASSERT_TRUE(stream);
  VrnLogSpec spec;
  spec.stream = stream;
  spec.filename = dir + "/unused";
  spec.level = 5;
  spec.timefmt = "T";
  spec.timeprec = 1;
  Log log(spec.synthesise());
  log->log(5, "x");
  EXPECT_EQ(level_of(log), 5);
  log.reset();
  std::fclose(stream);
  EXPECT_EQ(slurp(file), "T TRC " + ids_and_x());
  EXPECT_FALSE(std::filesystem::exists(spec.filename));
}

TEST_F(LogSpecTest, SpecMakesAFileLoggerFromItsFields) {
  VrnLogSpec spec;
  spec.apptag = "spec";
  spec.filename = file;
  spec.level = 4;
  spec.cyclefreq = 3;
  spec.timefmt = "T";
  spec.timeprec = 1;
  Log log(spec.synthesise());
  EXPECT_EQ(names_after_record(log), "log-99999999 ");
  EXPECT_EQ(level_of(log), 4);
}

TEST_F(LogSpecTest, SpecDoesNotCheckItsNumbers) {
  VrnLogSpec spec;
  spec.filename = file;
  spec.level = -5;
  spec.cyclefreq = 9;
  Log log(spec.synthesise());
  EXPECT_EQ(level_of(log), -5);
  expect_error(6, "Invalid Logger frequency=9", [&] { log->log(1, "x"); });
}

}  // namespace
