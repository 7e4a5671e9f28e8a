// The example that runs a task in each period. TASKD is its path, STEPPED_CLOCK that of a library
// which sets the time of day forward or back for a process.
#include "support/daemon.h"
#include "support/wait_for.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <iterator>
#include <string>

namespace {

struct TaskdTest : testing::Test {
  void configure(const std::string& command, int period = 1) const {
    daemon.configure("[taskd]\nCOMMAND = " + command + "\nPERIOD = " + std::to_string(period) +
                     "\n");
  }
  void start(const std::string& command, int period = 1) {
    configure(command, period);
    daemon.start();
  }
  std::string file(const char* name) const { return (daemon.dir / name).string(); }
  int runs() const {
    std::ifstream stream(file("runs"));
    return static_cast<int>(std::count(std::istreambuf_iterator<char>(stream), {}, '\n'));
  }
  bool has_run(int times) const {
    return wait_for([&] { return runs() >= times; }, std::chrono::seconds(20));
  }

  Daemon daemon{TASKD};
};

TEST_F(TaskdTest, RunsTheTaskInEachPeriod) {
  const auto begin = std::chrono::steady_clock::now();
  start("echo >>" + file("runs"));
  EXPECT_TRUE(has_run(4));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(2900));
}

TEST_F(TaskdTest, LogsWhatTheTaskPrints) {
  start("echo first\\; echo second >&2\\; printf third", 3600);
  EXPECT_TRUE(daemon.logs("Task: first\n"));
  EXPECT_TRUE(daemon.logs("Task: second\n"));
  EXPECT_TRUE(daemon.logs("Task: third\n"));
  EXPECT_TRUE(daemon.logs("The task ended with status 0"));
}

TEST_F(TaskdTest, TellsHowTheTaskEnded) {
  start("exit 7", 3600);
  EXPECT_TRUE(daemon.logs("ERR taskd-"));
  EXPECT_TRUE(daemon.logs("The task ended with status 7"));
}

TEST_F(TaskdTest, TellsWhichSignalEndedTheTask) {
  start("kill -KILL $$", 3600);
  EXPECT_TRUE(daemon.logs("The task was ended by signal 9"));
}

// A daemon ignores SIGHUP and others; a task finds them as they are by default.
TEST_F(TaskdTest, TheTaskIgnoresNoSignals) {
  start("kill -HUP $$", 3600);
  EXPECT_TRUE(daemon.logs("The task was ended by signal 1"));
}

TEST_F(TaskdTest, TheTaskHasNoDescriptorsOfTheDaemon) {
  start("readlink /proc/self/fd/*\\; echo done", 3600);
  EXPECT_TRUE(daemon.logs("Task: done\n"));
  EXPECT_TRUE(daemon.logs("Task: /dev/null\n"));
  EXPECT_EQ(daemon.log().find("Task: " + file("log")), std::string::npos);
  EXPECT_EQ(daemon.log().find("Task: anon_inode"), std::string::npos);
}

TEST_F(TaskdTest, APeriodIsLeftOutWhileTheTaskRuns) {
  start("echo >>" + file("runs") + "\\; while [ ! -e " + file("go") + " ]\\; do sleep 0.1\\; done");
  EXPECT_TRUE(daemon.logs("The task still runs, this period is left out", 2));
  EXPECT_EQ(runs(), 1);
  std::ofstream(file("go")).put('\n');
  EXPECT_TRUE(has_run(2));
}

TEST_F(TaskdTest, AReloadChangesTaskAndPeriod) {
  start("echo former", 3600);
  EXPECT_TRUE(daemon.logs("Task: former"));
  configure("echo latter", 3600);
  daemon.reload();
  EXPECT_TRUE(daemon.logs("Every 3600 s: echo latter"));
  configure("echo latter", 1);
  daemon.reload();
  EXPECT_TRUE(daemon.logs("Task: latter", 2));
}

TEST_F(TaskdTest, AFaultyReloadChangesNothing) {
  start("echo >>" + file("runs"));
  EXPECT_TRUE(has_run(1));
  configure("echo other", 0);
  daemon.reload();
  EXPECT_TRUE(daemon.logs("Invalid PERIOD (0)"));
  const int before = runs();
  EXPECT_TRUE(has_run(before + 1));
}

TEST_F(TaskdTest, TheEndOfTheDaemonEndsTheTask) {
  start("echo $$ >" + file("new") + "\\; mv " + file("new") + " " + file("pid") +
            "\\; sleep 600\\; :",
        3600);
  pid_t task = 0;
  EXPECT_TRUE(wait_for([&] { return bool(std::ifstream(file("pid")) >> task); }));
  daemon.send(SIGTERM);
  EXPECT_TRUE(daemon.ends());
  EXPECT_TRUE(wait_for([&] { return kill(task, 0) == -1; })) << task;
}

#ifdef STEPPED_CLOCK
// Periods go on as if nothing had happened when the time of day is set.
TEST_F(TaskdTest, AStepOfTheClockChangesNothing) {
  setenv("LD_PRELOAD", STEPPED_CLOCK, 1);
  setenv("STEPPED_CLOCK", file("step").c_str(), 1);
  start("unset LD_PRELOAD\\; echo >>" + file("runs"));
  unsetenv("LD_PRELOAD");
  EXPECT_TRUE(has_run(2));
  for (const char* const step : {"-7200", "7200"}) {
    std::ofstream(file("step")) << step;
    const int before = runs();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(has_run(before + 4));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1900));
  }
}
#endif

}  // namespace
