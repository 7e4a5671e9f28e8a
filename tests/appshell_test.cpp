// The application shell inside a test: start() is called on an application object as main() would.
// Whole applications, main() included, and daemons are judged from outside by apps/*.sh.

#include "vornfc/appshell.h"

#include "support/allocations.h"
#include "support/log_capture.h"
#include "support/manager.h"
#include "vornfc/config.h"
#include "vornfc/evtmgr.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"
#include "vornfc/notifier.h"
#include "vornfc/timer.h"
#include "vornfc/utils.h"
#include "vornsupport/support.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// This application brings its own gnl_init, which keeps what it is given.
namespace {

struct Initialisation {
  int calls = 0;
  unsigned char record[sizeof(gnl_init_ctrl)]{};
  std::string opt_letters;
  const char* failure = nullptr;  // not null: the text to fail with
  int error = 0;                  // what it leaves in errno
};

Initialisation initialisation;

}  // namespace

extern "C" int gnl_init(gnl_init_ctrl* ctrl) {
  ++initialisation.calls;
  std::memcpy(initialisation.record, ctrl, sizeof initialisation.record);
  initialisation.opt_letters = ctrl->cmdlin.opt_letters ? ctrl->cmdlin.opt_letters : "<NULL>";
  errno = initialisation.error;
  if (!initialisation.failure) return 0;
  std::snprintf(gnl_usrmsg, GNL_USRMSG_SIZE, "%s", initialisation.failure);
  return 1;
}

namespace vornfc {
namespace {

using Lines = std::vector<std::string>;
using Failure = std::pair<int, std::string>;
using Hook = std::function<void()>;

template <typename Call>
Failure failure_of(Call call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

// Everything goes to standard error, where LogCapture finds it.
VrnLogSpec* to_stderr(int level = 5) {
  auto* const spec = new VrnLogSpec;
  spec->stream = stderr;
  spec->level = level;
  return spec;
}

// An application that overrides every hook and writes down which are called.
class App : public VrnAppShell {
 public:
  explicit App(const char* project = "app", const char* suffix = nullptr,
               const char* description = nullptr, bool late = false)
      : VrnAppShell(to_stderr(), project, suffix, description, late) {}

  int run(const Lines& arguments = {}) {
    std::vector<const char*> argv{"app"};
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    argv.push_back(nullptr);
    return start(static_cast<int>(argv.size()) - 1, argv.data());
  }

  int appSetup(gnl_init_ctrl* ctrl) override {
    hooks.push_back("appSetup");
    if (on_setup) on_setup(ctrl);
    return setup_result;
  }
  int appParseArg(int isSwitch, int opt, const char* arg) override {
    std::string call =
        isSwitch ? std::string("-") + static_cast<char>(opt) : "parameter " + std::to_string(opt);
    words.push_back(call + "=" + (arg ? arg : "<NULL>"));
    if (on_word) on_word();
    return word_result;
  }
  int appInit() override {
    hooks.push_back("appInit");
    if (on_init) on_init();
    return init_result;
  }
  void appRun() override {
    hooks.push_back("appRun");
    if (on_run) on_run();
    if (dispatches) VrnAppShell::appRun();
  }
  void appTerminated() override {
    hooks.push_back("appTerminated");
    if (on_terminated) on_terminated();
  }
  void appUsage() const override {
    ++usages;
    VrnAppShell::appUsage();
  }

  Lines hooks;
  Lines words;
  mutable int usages = 0;
  int setup_result = 0, init_result = 0, word_result = 0;
  bool dispatches = false;  // appRun() runs the loop
  std::function<void(gnl_init_ctrl*)> on_setup;
  Hook on_word, on_init, on_run, on_terminated;
};

const Lines all_hooks{"appSetup", "appInit", "appRun", "appTerminated"};

class AppShellTest : public testing::Test {
 public:
  ~AppShellTest() override {
    for (const std::string& path : files()) unlink(path.c_str());
  }

 protected:
  AppShellTest() {
    static char name[] = "app";
    gnl_prognam = name;
  }

  // A file of this test's own.
  static std::string file(const std::string& content) {
    char path[] = "/tmp/vornfc_appshell_XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_NE(fd, -1);
    close(fd);
    std::ofstream(path) << content;
    files().push_back(path);
    return path;
  }
  static std::string content(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  // Where in the captured lines each of `texts` is found, in this order.
  static void expect_in_order(const LogCapture& log, const Lines& texts) {
    const Lines lines = log.lines();
    auto at = lines.begin();
    for (const std::string& text : texts) {
      at = std::find_if(at, lines.end(), [&](const std::string& line) {
        return line.size() >= text.size() &&
               line.compare(line.size() - text.size(), text.size(), text) == 0;
      });
      ASSERT_NE(at, lines.end()) << "missing, or out of order: " << text;
      ++at;
    }
  }

 private:
  static Lines& files() {
    static Lines all;
    return all;
  }
};

// ---- the application object ----

std::string title(const char* project, const char* suffix, const char* description) {
  App app(project, suffix, description);
  return app.appTitle();
}

TEST_F(AppShellTest, TitleIsMadeOfWhatIsGiven) {
  EXPECT_EQ(title("proj", nullptr, "My service"), "My service: proj");
  EXPECT_EQ(title("proj", "1.2", nullptr), "proj 1.2");
  EXPECT_EQ(title(nullptr, "1.2", "My service"), "My service 1.2");
  EXPECT_EQ(title("proj", "1.2", "My service"), "My service: proj 1.2");
  EXPECT_EQ(title("proj", nullptr, nullptr), "proj");
  EXPECT_EQ(title("", nullptr, nullptr), "");
  EXPECT_EQ(title("", "", ""), ":  ");
}

TEST_F(AppShellTest, ObjectIsTheOnlyOneFromItsConstructionOn) {
  EXPECT_EQ(VrnAppShell::singleton, nullptr);
  {
    const App app;
    EXPECT_EQ(VrnAppShell::singleton, &app);
  }
  EXPECT_EQ(VrnAppShell::singleton, nullptr);
}

TEST_F(AppShellTest, SecondObjectIsRefused) {
  LogCapture log;
  const App app;
  EXPECT_EQ(failure_of([] { const VrnAppShell second(nullptr, "b", nullptr, nullptr); }),
            Failure(6, "Duplicate VrnAppShell"));
  EXPECT_EQ(VrnAppShell::singleton, &app);
  char text[64];
  std::snprintf(text, sizeof text, "Duplicate VrnAppShell - old=0x%x, new=0x",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(&app)));
  EXPECT_TRUE(log.contains(text));
}

TEST_F(AppShellTest, ObjectWithoutProjectAndDescriptionIsRefused) {
  EXPECT_EQ(failure_of([] { const VrnAppShell app(nullptr, nullptr, "1.2", nullptr); }),
            Failure(3, "AppShell: project-name and app-description both null"));
  EXPECT_EQ(VrnAppShell::singleton, nullptr);
}

// Nobody may find an object that was not constructed.
TEST_F(AppShellTest, ObjectThatMemoryIsShortForIsNone) {
  REQUIRE_COUNTED_ALLOCATIONS();
  int failures = 0;
  for (long number = 1; number <= 2; ++number) {
    sys::fail_allocation(number);
    try {
      const VrnAppShell app(nullptr, "a", nullptr, "A title that needs memory of its own");
    } catch (const std::bad_alloc&) {
      ++failures;
    }
    sys::fail_allocation(0);
    EXPECT_EQ(VrnAppShell::singleton, nullptr);
  }
  EXPECT_EQ(failures, 2);
}

TEST_F(AppShellTest, ConstructionAndDestructionAreTraced) {
  LogCapture log;
  gnl_prognam = nullptr;
  { const App app; }
  const Lines lines = log.lines();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].find("AppShell.ctor - this=0x"), 0U);
  EXPECT_NE(lines[0].find(", pimpl=0x"), std::string::npos);
  EXPECT_NE(lines[0].find(", prognam=<NULL> [app]"), std::string::npos);
  EXPECT_EQ(lines[1], "AppShell.dtor - app");
}

TEST_F(AppShellTest, NamesOfTheWorkingDirectory) {
  EXPECT_STREQ(VrnAppShell::ENV_WORKDIR, "VORN_WORKDIR");
  EXPECT_STREQ(VrnAppShell::DFLT_WORKDIR, "/tmp");
}

// ---- the start sequence ----

TEST_F(AppShellTest, HooksAreCalledInOrder) {
  LogCapture log;
  App app;
  EXPECT_EQ(app.run(), 0);
  EXPECT_EQ(app.hooks, all_hooks);
  expect_in_order(log, {", prognam=app, argc=1 [app]", "AppShell.start - app entering appRun()",
                        "AppShell.start: terminating [app]", "AppShell.shutdown - app"});
  EXPECT_TRUE(log.contains("AppShell.start: this=0x"));
}

TEST_F(AppShellTest, ApplicationWithoutHooksRunsTheLoopUntilItIsStopped) {
  VrnAppShell app(to_stderr(), "app", nullptr, nullptr);
  const char* const argv[] = {"app", nullptr};
  std::thread stopper([&] {
    while (!VrnEvtMgr::instance(1)) std::this_thread::yield();
    app.appTerminate();
  });
  EXPECT_EQ(app.start(1, argv), 0);
  stopper.join();
}

TEST_F(AppShellTest, EventManagerConfigurationAndLoggerAreReadyForAppInit) {
  App app;
  EXPECT_EQ(app.appLogger(), nullptr);
  EXPECT_EQ(app.appConfig(), nullptr);
  app.on_setup = [&](gnl_init_ctrl*) {
    EXPECT_NE(app.appLogger(), nullptr);
    EXPECT_EQ(app.appConfig(), nullptr);
    EXPECT_EQ(VrnAppShell::evtmgr, nullptr);
  };
  app.on_init = [&] {
    ASSERT_NE(app.appConfig(), nullptr);
    EXPECT_EQ(app.appConfig()->config->filename(), "");
    EXPECT_TRUE(app.appConfig()->config->groups().empty());
    EXPECT_EQ(app.appConfig()->group, "");
    EXPECT_EQ(app.appConfig()->notifierName(), "Config=");
    EXPECT_NE(VrnAppShell::evtmgr, nullptr);
    EXPECT_EQ(initialisation.calls, 1);
  };
  EXPECT_EQ(app.run(), 0);
  EXPECT_EQ(app.hooks, all_hooks);
}

TEST_F(AppShellTest, LateEventManagerIsMadeAfterAppInit) {
  App app("app", nullptr, nullptr, true);
  app.on_init = [] {
    EXPECT_EQ(VrnAppShell::evtmgr, nullptr);
    EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
  };
  app.on_run = [] { EXPECT_EQ(VrnAppShell::evtmgr, VrnEvtMgr::instance(8)); };
  EXPECT_EQ(app.run(), 0);
  EXPECT_EQ(app.hooks, all_hooks);
}

TEST_F(AppShellTest, EventManagerEndsWithTheApplication) {
  {
    App app;
    app.run();
    EXPECT_NE(VrnAppShell::evtmgr, nullptr);  // the shutdown destroys nothing
  }
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
}

TEST_F(AppShellTest, ErrnoIsClearForAppInit) {
  App app;
  initialisation.error = ENOENT;
  app.on_init = [] { EXPECT_EQ(errno, 0); };
  app.run();
}

TEST_F(AppShellTest, SetupThatReturnsNonZeroEndsTheStartQuietly) {
  LogCapture log;
  App app;
  app.setup_result = 1;
  EXPECT_EQ(app.run({"-h"}), 0);
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
  EXPECT_EQ(app.usages, 0);
  EXPECT_EQ(app.appConfig(), nullptr);
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
  EXPECT_EQ(initialisation.calls, 0);
  expect_in_order(log, {"AppShell.start: terminating [app]", "AppShell.shutdown - app"});
}

TEST_F(AppShellTest, InitThatReturnsNonZeroLeavesARunThatReturnsAtOnce) {
  LogCapture log;
  App app;
  app.init_result = 1;
  app.dispatches = true;
  EXPECT_EQ(app.run(), 0);
  EXPECT_EQ(app.hooks, all_hooks);
  expect_in_order(log, {"AppShell.terminate: stopflag=No [app]",
                        "AppShell.start - app entering appRun()", "AppShell.shutdown - app"});
}

TEST_F(AppShellTest, InitThatReturnsNonZeroDoesSoWithALateEventManagerToo) {
  App app("app", nullptr, nullptr, true);
  app.init_result = 1;
  app.dispatches = true;
  EXPECT_EQ(app.run(), 0);
  EXPECT_EQ(app.hooks, all_hooks);
}

TEST_F(AppShellTest, FailedInitialisationIsPrintedAndLogged) {
  LogCapture log;
  App app;
  initialisation.failure = "no licence";
  initialisation.error = EACCES;
  EXPECT_EQ(app.run(), 1);
  const std::string text = "VrnException: Error=10 (errno=13) - Initialisation failed [no licence]";
  EXPECT_NE(log.raw().find("\n" + text + "\n\n"), std::string::npos);
  expect_in_order(log, {text, "AppShell.start: " + text, "AppShell.shutdown - app"});
  EXPECT_FALSE(log.contains("AppShell.start: terminating"));
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
}

// The hook that throws, and the hooks that are called all the same.
void expect_failed_start(Hook App::*hook, const Lines& called) {
  LogCapture log;
  App app;
  app.*hook = [] { throw std::runtime_error("boom"); };
  EXPECT_EQ(app.run(), 1);
  EXPECT_NE(log.raw().find("\nSt13runtime_error=boom\n\n"), std::string::npos);
  EXPECT_TRUE(log.contains("AppShell.start: St13runtime_error=boom"));
  EXPECT_EQ(app.hooks, called);
}

TEST_F(AppShellTest, ExceptionOfAppInitEndsTheStart) {
  expect_failed_start(&App::on_init, {"appSetup", "appInit", "appTerminated"});
}

TEST_F(AppShellTest, ExceptionOfAppRunEndsTheStart) {
  expect_failed_start(&App::on_run, all_hooks);
}

TEST_F(AppShellTest, ExceptionOfAppSetupEndsTheStart) {
  App app;
  app.on_setup = [](gnl_init_ctrl*) { throw VrnException(3, "boom"); };
  EXPECT_EQ(app.run(), 1);
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
}

TEST_F(AppShellTest, ExceptionOfAppTerminatedIsLogged) {
  LogCapture log;
  App app;
  app.on_terminated = [] { throw std::string("too late"); };
  EXPECT_EQ(app.run(), 0);
  expect_in_order(log, {"AppShell.shutdown: string=too late"});
}

TEST_F(AppShellTest, LoggerThatCannotBeMadeEndsTheProcess) {
  const auto start_without_logger = [] {
    auto* const spec = new VrnLogSpec;
    spec->filename = "/nonexistent/log";
    VrnAppShell app(spec, "app", nullptr, nullptr);
    const char* const argv[] = {"app", nullptr};
    app.start(1, argv);
  };
  EXPECT_EXIT(start_without_logger(), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(AppShellTest, LoggerComesFromTheEnvironmentWithoutASpec) {
  const std::string path = file("");
  setenv("VORNTRC_FILENAME", path.c_str(), 1);
  setenv("VORNTRC_LEVEL", "4", 1);
  {
    VrnAppShell app(nullptr, "app", nullptr, nullptr);
    const char* const argv[] = {"app", "-h", nullptr};
    EXPECT_EQ(app.start(2, argv), 0);
  }
  EXPECT_NE(content(path).find("AppShell.shutdown - app"), std::string::npos);
  EXPECT_NE(content(path).find("AppShell.dtor - app"), std::string::npos);  // logged to the last
}

// A timer that was started and has nobody to run it does not spoil the end.
TEST_F(AppShellTest, FailedStartLeavesTimersThatCanBeDestroyed) {
  struct Timer : VrnTimer {
    Timer() : VrnTimer("t") {}
    void timerExpired() override {}
    void timerStopped() override {}
  };
  Timer timer;
  App app;
  app.on_init = [&] {
    timer.startTimer(60, 0, 0, 0);
    throw VrnException(3, "boom");
  };
  EXPECT_EQ(app.run(), 1);
}

TEST_F(AppShellTest, TimerDestroyedBeforeTheLoopThatIsToRunItEndsTheProcess) {
  struct Timer : VrnTimer {
    Timer() : VrnTimer("t") {}
    void timerExpired() override {}
    void timerStopped() override {}
  };
  const auto start_and_destroy = [] {
    App app;
    app.on_init = [] { Timer().startTimer(60, 0, 0, 0); };
    app.run();
  };
  EXPECT_EXIT(start_and_destroy(), testing::ExitedWithCode(1),
              "VrnTimer destroyed while active - ABORT APP !");
}

// The library's main(): this test program has another one.
int library_main(int argc, char** argv) {
  void* const library = dlopen("libvornfc_mt.so.1", RTLD_NOW | RTLD_NOLOAD);
  EXPECT_NE(library, nullptr);
  void* const entry = library ? dlsym(library, "main") : nullptr;
  EXPECT_NE(entry, nullptr);
  if (!entry) return -1;
  return reinterpret_cast<int (*)(int, char**)>(entry)(argc, argv);
}

TEST_F(AppShellTest, MainTakesTheProgramsNameFromItsPath) {
  static char path[] = "/usr/sbin/served";  // the name outlives the call
  char* argv[] = {path, nullptr};
  App app;
  EXPECT_EQ(library_main(1, argv), 0);
  EXPECT_STREQ(gnl_prognam, "served");
  EXPECT_EQ(app.hooks, all_hooks);
}

TEST_F(AppShellTest, MainWithoutAnyArgumentHasAnEmptyName) {
  char* argv[] = {nullptr};
  App app;
  EXPECT_EQ(library_main(0, argv), 0);
  EXPECT_STREQ(gnl_prognam, "");
  EXPECT_EQ(app.hooks, all_hooks);
}

// ---- an event manager of the application's own ----

TEST_F(AppShellTest, EventManagerOfTheApplicationsOwnIsRunAndStopped) {
  App app;
  app.dispatches = true;
  auto* const manager = new StandInManager;  // the shell deletes it
  Lines calls;
  manager->on_run = [&] { calls.push_back("run"); };
  manager->on_end = [&] { calls.push_back("stop"); };
  app.on_run = [&] {
    EXPECT_EQ(VrnAppShell::evtmgr, manager);
    app.appTerminate();
  };
  EXPECT_EQ(app.run(), 0);
  EXPECT_EQ(calls, (Lines{"stop", "run"}));
}

TEST_F(AppShellTest, StopThatThrowsOverABadWordIsLoggedAndEndsTheStart) {
  LogCapture log;
  App app;
  auto* const manager = new StandInManager;
  manager->on_end = [] { throw std::string("no stop"); };
  app.word_result = 3;  // not recognised
  EXPECT_EQ(app.run({"word"}), 1);
  EXPECT_TRUE(log.contains(" - Unexpected command-line parameter=1 (word)"));
  expect_in_order(
      log, {"AppShell: terminate() threw [string=no stop]",
            "Invalid command-line [parameter 1 rejected: word]", "AppShell.start: string=no stop"});
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
}

// ---- stop requests ----

TEST_F(AppShellTest, StopInAppSetupEndsTheStartAfterTheCommandLine) {
  App app;
  app.on_setup = [&](gnl_init_ctrl*) { app.appTerminate(); };
  EXPECT_EQ(app.run(), 0);
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);  // a stop makes no event manager
}

TEST_F(AppShellTest, StopInAppInitLeavesARunThatReturnsAtOnce) {
  for (const bool late : {false, true}) {
    App app("app", nullptr, nullptr, late);
    app.dispatches = true;
    app.on_init = [&] { app.appTerminate(); };
    EXPECT_EQ(app.run(), 0);
    EXPECT_EQ(app.hooks, all_hooks);
  }
}

TEST_F(AppShellTest, StopMayBeRepeatedAndTellsSo) {
  LogCapture log;
  App app;
  app.on_init = [&] {
    app.appTerminate();
    app.appTerminate();
  };
  app.dispatches = true;
  EXPECT_EQ(app.run(), 0);
  app.appTerminate();
  expect_in_order(
      log, {"AppShell.terminate: stopflag=No [app]", "AppShell.terminate: stopflag=Yes [app]",
            "AppShell.shutdown - app", "AppShell.terminate: stopflag=Yes [app]"});
}

// ---- the command line ----

TEST_F(AppShellTest, OptionsAndParametersOfTheApplicationReachIt) {
  App app;
  app.appSetOpts("vx:", "FILE...");
  EXPECT_EQ(app.run({"-v", "-x", "value", "-xglued", "one", "-v", "two"}), 0);
  EXPECT_EQ(app.words, (Lines{"-v=<NULL>", "-x=value", "-x=glued", "parameter 1=one", "-v=<NULL>",
                              "parameter 2=two"}));
  EXPECT_EQ(app.hooks, all_hooks);
}

TEST_F(AppShellTest, LettersOfTheShellAreItsOwn) {
  App app;
  app.appSetOpts("hD:C:L:v", "");
  EXPECT_EQ(app.run({"-v", "-h"}), 0);
  EXPECT_EQ(app.words, Lines{"-v=<NULL>"});
  EXPECT_EQ(app.usages, 1);
}

TEST_F(AppShellTest, HelpPrintsTheUsageOnceAndEndsTheStart) {
  App app;
  EXPECT_EQ(app.run({"-h"}), 0);
  EXPECT_EQ(app.usages, 1);
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
  EXPECT_EQ(app.appConfig(), nullptr);
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
  EXPECT_EQ(initialisation.calls, 0);
}

TEST_F(AppShellTest, WordsAfterHelpAreStillParsed) {
  App app;
  app.appSetOpts("v", "");
  EXPECT_EQ(app.run({"-h", "-v"}), 0);
  EXPECT_EQ(app.words, Lines{"-v=<NULL>"});
}

const char usage_of_app[] =
    "USAGE:\n"
    "app [-D workdir] [-C filename[:group]] [-L group[:apptag]]\n"
    "app -h\n"
    "\n"
    "  -D: Daemon process. Use hypen (-) to specify default working directory\n"
    "  -C: Config file, and top-level group\n"
    "  -L: Logger's config group, and its application tag\n"
    "  -h: Display this usage synopsis\n"
    "\n";

TEST_F(AppShellTest, UsageIsPrintedToTheByte) {
  App app("proj", "1.2", "My service");
  LogCapture log;
  app.VrnAppShell::appUsage();
  EXPECT_EQ(log.raw(), std::string("\nMy service: proj 1.2\n") + usage_of_app);
}

TEST_F(AppShellTest, UsageWithoutATitleLeavesItsLineOut) {
  App app("");
  LogCapture log;
  app.VrnAppShell::appUsage();
  EXPECT_EQ(log.raw(), std::string("\n") + usage_of_app);
}

TEST_F(AppShellTest, UsageOfAProgramWithoutAName) {
  gnl_prognam = nullptr;
  App app("proj");
  LogCapture log;
  app.VrnAppShell::appUsage();
  std::string expected = std::string("\nproj\n") + usage_of_app;
  for (size_t at; (at = expected.find("\napp ")) != expected.npos;) {
    expected.replace(at + 1, 3, "<NULL>");
  }
  EXPECT_EQ(log.raw(), expected);
}

TEST_F(AppShellTest, MalformedCommandLineIsPrintedWithTheUsage) {
  LogCapture log;
  App app;
  app.appSetOpts("x:", "");
  EXPECT_EQ(app.run({"-x"}), 0);
  EXPECT_NE(log.raw().find(std::string("Invalid command-line [option -x needs an argument]\n"
                                       "\napp\n") +
                           usage_of_app),
            std::string::npos);
  EXPECT_EQ(app.usages, 1);
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
  EXPECT_TRUE(log.contains("AppShell.terminate: stopflag=No [app]"));
}

TEST_F(AppShellTest, UndeclaredLetterMakesTheCommandLineMalformed) {
  LogCapture log;
  App app;
  EXPECT_EQ(app.run({"-q"}), 0);
  EXPECT_TRUE(log.contains("Invalid command-line [unknown option -q]"));
  EXPECT_TRUE(app.words.empty());
}

TEST_F(AppShellTest, NumberOfParametersIsChecked) {
  for (const Lines& words : {Lines{}, Lines{"a", "b", "c"}}) {
    LogCapture log;
    App app;
    app.appSetOpts("", "SOURCE [TARGET]");
    app.appSetParams(1, 2);
    EXPECT_EQ(app.run(words), 0);
    EXPECT_TRUE(log.contains("Invalid command-line ["));
    EXPECT_TRUE(log.contains(": SOURCE [TARGET]]"));
    EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
  }
  App app;
  app.appSetParams(1, 2);
  EXPECT_EQ(app.run({"a", "b"}), 0);
  EXPECT_EQ(app.hooks, all_hooks);
}

// The shell without an appParseArg() of the application's.
TEST_F(AppShellTest, SwitchThatNobodyKnowsEndsTheStart) {
  LogCapture log;
  VrnAppShell app(to_stderr(), "app", nullptr, nullptr);
  app.appSetOpts("q", "");
  const char* const argv[] = {"app", "-q", nullptr};
  EXPECT_EQ(app.start(2, argv), 0);
  EXPECT_TRUE(log.contains("AppShell.args: VrnException: Error=3 (errno="));
  expect_in_order(log, {"- Unexpected command-line switch=113 (<NULL>)",
                        "AppShell.terminate: stopflag=No [app]", "AppShell.shutdown - app"});
  EXPECT_FALSE(log.contains("USAGE"));
  EXPECT_EQ(VrnEvtMgr::instance(1), nullptr);
}

TEST_F(AppShellTest, ParameterThatNobodyKnowsEndsTheStart) {
  LogCapture log;
  VrnAppShell app(to_stderr(), "app", nullptr, nullptr);
  const char* const argv[] = {"app", "word", nullptr};
  EXPECT_EQ(app.start(2, argv), 0);
  expect_in_order(log, {"- Unexpected command-line parameter=1 (word)"});
  EXPECT_EQ(initialisation.calls, 0);
}

TEST_F(AppShellTest, WordThatTheApplicationRejectsEndsTheStart) {
  LogCapture log;
  App app;
  app.appSetOpts("x:", "");
  app.word_result = 3;
  EXPECT_EQ(app.run({"-x", "value"}), 0);
  expect_in_order(log, {"- Unexpected command-line switch=120 (value)"});
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
}

TEST_F(AppShellTest, OtherResultsOfTheApplicationAreAccepted) {
  for (const int result : {0, 1, -1, 4}) {
    App app;
    app.word_result = result;
    EXPECT_EQ(app.run({"word"}), 0);
    EXPECT_EQ(app.hooks, all_hooks);
  }
}

TEST_F(AppShellTest, ExceptionOfAppParseArgEndsTheStart) {
  LogCapture log;
  App app;
  app.on_word = [] { throw std::string("bad word"); };
  EXPECT_EQ(app.run({"word"}), 0);
  expect_in_order(log, {"AppShell.args: string=bad word"});
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
}

TEST_F(AppShellTest, NullOptionTextsAreRefused) {
  App app;
  EXPECT_EQ(failure_of([&] { app.appSetOpts(nullptr, ""); }).first, 3);
  EXPECT_EQ(failure_of([&] { app.appSetOpts("v", nullptr); }).first, 3);
  EXPECT_NE(failure_of([&] { app.appSetOpts(nullptr, nullptr); }).second.find("app"),
            std::string::npos);
}

// ---- the control record, byte by byte ----

// The named fields of a record, and whether all the other bytes are zero.
struct Fields {
  explicit Fields(const unsigned char* record) {
    std::vector<bool> named(sizeof(gnl_init_ctrl), false);
    const auto take = [&](size_t offset, void* field, size_t size) {
      std::memcpy(field, record + offset, size);
      for (size_t i = 0; i < size; ++i) named[offset + i] = true;
    };
    take(12, &one, sizeof one);
    take(48, &flags, sizeof flags);
    take(64, &options, sizeof options);
    take(72, &extra, sizeof extra);
    take(88, &callback, sizeof callback);
    take(96, &user, sizeof user);
    take(104, &first, sizeof first);
    take(108, &second, sizeof second);
    for (size_t i = 0; i < named.size(); ++i) rest_is_zero &= named[i] || record[i] == 0;
  }
  std::int32_t one, first, second;
  std::uint32_t flags;
  const void *options, *extra, *callback, *user;
  bool rest_is_zero = true;
};

TEST_F(AppShellTest, RecordThatAppSetupGetsIsClearButForThreeFields) {
  App app;
  app.appSetOpts("vx:", "EXTRA");
  app.appSetParams(0, 7);
  std::unique_ptr<Fields> fields;
  app.on_setup = [&](gnl_init_ctrl* ctrl) {
    fields = std::make_unique<Fields>(reinterpret_cast<const unsigned char*>(ctrl));
  };
  app.run();
  ASSERT_TRUE(fields);
  EXPECT_EQ(fields->one, 1);
  EXPECT_NE(fields->callback, nullptr);
  EXPECT_NE(fields->user, nullptr);
  EXPECT_EQ(fields->flags, 0U);
  EXPECT_EQ(fields->options, nullptr);
  EXPECT_EQ(fields->extra, nullptr);
  EXPECT_EQ(fields->first, 0);
  EXPECT_EQ(fields->second, 0);
  EXPECT_TRUE(fields->rest_is_zero);
}

TEST_F(AppShellTest, RecordThatTheSupportLibraryGetsIsComplete) {
  App app;
  app.appSetOpts("vx:", "EXTRA");
  app.appSetParams(0, 7);
  app.run();
  const Fields fields(initialisation.record);
  EXPECT_EQ(fields.one, 1);
  EXPECT_NE(fields.callback, nullptr);
  EXPECT_NE(fields.user, nullptr);
  EXPECT_EQ(fields.flags, 0U);
  EXPECT_EQ(initialisation.opt_letters, "vx:hD:C:L:");
  EXPECT_STREQ(static_cast<const char*>(fields.extra), "EXTRA");
  EXPECT_EQ(fields.first, 0);
  EXPECT_EQ(fields.second, 7);
  EXPECT_TRUE(fields.rest_is_zero);
}

TEST_F(AppShellTest, OptionTextsMayBeSetInAppSetup) {
  App app;
  app.on_setup = [&](gnl_init_ctrl*) {
    app.appSetOpts("z", "");
    app.appSetParams(-1, 3);
  };
  EXPECT_EQ(app.run({"-z"}), 0);
  const Fields fields(initialisation.record);
  EXPECT_EQ(initialisation.opt_letters, "zhD:C:L:");
  EXPECT_EQ(fields.extra, nullptr);  // an empty text
  EXPECT_EQ(fields.first, -1);
  EXPECT_EQ(fields.second, 3);
}

TEST_F(AppShellTest, WhatAppSetupWritesIntoTheRecordStays) {
  App app;
  static int mark;
  app.on_setup = [&](gnl_init_ctrl* ctrl) {
    ctrl->reserved_16[0] = &mark;
    ctrl->has_cmdlin = 5;
    ctrl->flags = 6;
    ctrl->cmdlin.param_text = "MINE";
    ctrl->cmdlin.opt_letters = "overwritten";
  };
  EXPECT_EQ(app.run(), 0);
  gnl_init_ctrl record;
  std::memcpy(&record, initialisation.record, sizeof record);
  EXPECT_EQ(record.reserved_16[0], &mark);
  EXPECT_EQ(record.has_cmdlin, 5);
  EXPECT_EQ(record.flags, 6U);
  EXPECT_STREQ(record.cmdlin.param_text, "MINE");
  EXPECT_EQ(initialisation.opt_letters, "hD:C:L:");
}

// With a late event manager the first attempt to detach does nothing, and is noted all the same.
TEST_F(AppShellTest, RequestForADaemonIsNotedInTheRecord) {
  App app("app", nullptr, nullptr, true);
  const pid_t process = getpid();
  app.on_init = [] { throw VrnException(3, "before it detaches"); };
  EXPECT_EQ(app.run({"-D", "-"}), 1);
  EXPECT_EQ(getpid(), process);
  EXPECT_EQ(Fields(initialisation.record).flags, 1U);
}

TEST_F(AppShellTest, DaemonisingBeforeThereIsAnEventManagerDoesNothing) {
  App app;
  const pid_t process = getpid();
  app.appDaemonise("/nonexistent");
  EXPECT_EQ(getpid(), process);
}

// ---- configuration ----

TEST_F(AppShellTest, ConfigurationFileAndGroup) {
  const std::string path = file("[main]\nkey=value\n");
  App app;
  app.on_init = [&] {
    EXPECT_EQ(app.appConfig()->config->filename(), path);
    EXPECT_EQ(app.appConfig()->group, "main");
    EXPECT_EQ(app.appConfig()->notifierName(), "Config=" + path);
    EXPECT_EQ(app.appConfig()->config->value("main", "key", true, 0), "value");
  };
  EXPECT_EQ(app.run({"-C", path + ":main"}), 0);
  EXPECT_EQ(app.hooks, all_hooks);
}

TEST_F(AppShellTest, ConfigurationFileWithoutAGroup) {
  const std::string path = file("[main]\nkey=value\n");
  App app;
  EXPECT_EQ(app.run({"-C", path}), 0);
  EXPECT_EQ(app.appConfig()->group, "");
  EXPECT_EQ(app.appConfig()->config->filename(), path);
}

TEST_F(AppShellTest, GroupOfTheConfigurationMayHaveColons) {
  const std::string path = file("[main]\nkey=value\n");
  App app;
  EXPECT_EQ(app.run({"-C", path + ":a:b"}), 0);
  EXPECT_EQ(app.appConfig()->group, "a:b");
}

TEST_F(AppShellTest, BadConfigurationFileEndsTheStart) {
  for (const std::string& path : {std::string("/nonexistent/file"), file("no group\n")}) {
    LogCapture log;
    App app;
    EXPECT_EQ(app.run({"-C", path}), 0);
    EXPECT_TRUE(log.contains("AppShell.args: VrnException: Error=9"));
    EXPECT_TRUE(log.contains(path));
    EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
  }
}

// The application may have attached observers to the manager that a second -C replaces.
TEST_F(AppShellTest, SecondConfigurationFileLeavesTheFirstManagerAlive) {
  struct Observer : VrnObserver {
    void observerNotified(VrnNotifier*) override { ++notified; }
    void observerDetached(VrnNotifier*) override { ++detached; }
    std::string observerName() const override { return "observer"; }
    int notified = 0, detached = 0;
  };
  const std::string first_path = file("[a]\nkey=1\n");
  const std::string second_path = file("[b]\nkey=2\n");
  Observer observer;
  VrnConfigMgr* first = nullptr;
  {
    App app;
    app.appSetOpts("v", "");
    app.on_word = [&] {
      first = app.appConfig();
      first->attach(&observer);
    };
    EXPECT_EQ(app.run({"-C", first_path, "-v", "-C", second_path}), 0);
    EXPECT_NE(app.appConfig(), first);
    EXPECT_EQ(app.appConfig()->config->filename(), second_path);
    EXPECT_EQ(observer.detached, 0);
    first->notifyObservers();
    EXPECT_EQ(observer.notified, 1);
    EXPECT_EQ(first->config->value("a", "key", true, 0), "1");
  }
  EXPECT_EQ(observer.detached, 1);
}

// ---- the logger ----

// The configuration of a logger that writes to `path`.
std::string logger_group(const std::string& path, const std::string& more = "") {
  return "[log]\nFILENAME=" + path + "\n" + more;
}

TEST_F(AppShellTest, LoggerIsMadeFromItsConfigurationGroup) {
  const std::string log_path = file("");
  const std::string path = file(logger_group(log_path, "LEVEL=4\n"));
  App app;
  app.on_init = [] { vrnlog(4, "hello %d", 42); };
  EXPECT_EQ(app.run({"-C", path, "-L", "log:tag"}), 0);
  EXPECT_NE(content(log_path).find(" DBG tag-"), std::string::npos);
  EXPECT_NE(content(log_path).find(" hello 42\n"), std::string::npos);
}

TEST_F(AppShellTest, LoggerWithoutATagHasTheProgramsName) {
  const std::string log_path = file("");
  const std::string path = file(logger_group(log_path));
  App app;
  app.on_init = [] { vrnlog(3, "hello"); };
  EXPECT_EQ(app.run({"-C", path, "-L", "log"}), 0);
  EXPECT_NE(content(log_path).find(" INFO app-"), std::string::npos);
}

// Level 3, milliseconds, no cycling.
TEST_F(AppShellTest, LoggerOfAMissingGroupHasTheDefaults) {
  const std::string home = file("");
  unlink(home.c_str());
  ASSERT_EQ(mkdir(home.c_str(), 0700), 0);
  setenv("HOME", home.c_str(), 1);
  {
    App app;
    app.on_init = [] {
      vrnlog(3, "shown");
      vrnlog(4, "not shown");
    };
    EXPECT_EQ(app.run({"-L", "log:tag"}), 0);
    EXPECT_EQ(app.appLogger()->level(5), 3);
    EXPECT_EQ(app.hooks, all_hooks);
  }
  const std::string text = content(home + "/VORN.LOG");
  const size_t line = text.find(" INFO tag-");
  ASSERT_NE(line, std::string::npos);
  EXPECT_EQ(text[line - 4], '.');  // milliseconds
  EXPECT_NE(text.find(" shown\n"), std::string::npos);
  EXPECT_EQ(text.find("not shown"), std::string::npos);
  unlink((home + "/VORN.LOG").c_str());
  rmdir(home.c_str());
}

TEST_F(AppShellTest, TagWithoutAGroupMakesALoggerToo) {
  const std::string log_path = file("");
  // An empty name is a group that no file has.
  setenv("HOME", "/nonexistent", 1);
  LogCapture log;
  App app;
  EXPECT_EQ(app.run({"-L", ":tag"}), 1);
  EXPECT_TRUE(log.contains("AppShell.start: VrnException: Error=2"));
  EXPECT_TRUE(log.contains("Failed to open logfile=/nonexistent/VORN.LOG"));
}

TEST_F(AppShellTest, LaterLoggerOptionWithoutATagKeepsTheEarlierTag) {
  const std::string log_path = file("");
  const std::string path = file(logger_group(log_path));
  App app;
  app.on_init = [] { vrnlog(3, "hello"); };
  EXPECT_EQ(app.run({"-L", "other:first", "-L", "log", "-C", path}), 0);
  EXPECT_NE(content(log_path).find(" INFO first-"), std::string::npos);
}

TEST_F(AppShellTest, LaterLoggerOptionWithAnEmptyTagDropsTheEarlierTag) {
  const std::string log_path = file("");
  const std::string path = file(logger_group(log_path));
  App app;
  app.on_init = [] { vrnlog(3, "hello"); };
  EXPECT_EQ(app.run({"-L", "other:first", "-L", "log:", "-C", path}), 0);
  EXPECT_NE(content(log_path).find(" INFO app-"), std::string::npos);
}

TEST_F(AppShellTest, BadLoggerSettingsEndTheStart) {
  const std::string path = file("[log]\nLEVEL=NONSENSE\n");
  LogCapture log;
  App app;
  EXPECT_EQ(app.run({"-C", path, "-L", "log"}), 1);
  EXPECT_TRUE(log.contains("AppShell.start: VrnException: Error=9"));
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appTerminated"}));
}

TEST_F(AppShellTest, LoggerIsReplaced) {
  const std::string log_path = file("");
  App app;
  app.run();
  VrnLogSpec spec;
  spec.filename = log_path;
  spec.apptag = "tag";
  app.appSetLogger(&spec);
  vrnlog(3, "hello");
  EXPECT_NE(content(log_path).find(" hello\n"), std::string::npos);
  EXPECT_EQ(spec.filename, log_path);  // the caller's
}

// Both may have the same file.
TEST_F(AppShellTest, OldLoggerIsGoneBeforeTheNewOneIsMade) {
  const std::string log_path = file("");
  VrnLogSpec spec;
  spec.filename = log_path;
  spec.level = 4;
  App app;
  app.run();
  app.appSetLogger(&spec);
  spec.filename = "/nonexistent/log";
  EXPECT_EQ(failure_of([&] { app.appSetLogger(&spec); }).first, 2);
  EXPECT_NE(content(log_path).find("Logger Shutdown - flog=0x"), std::string::npos);
}

TEST_F(AppShellTest, NullSpecMakesALoggerFromTheEnvironment) {
  const std::string log_path = file("");
  setenv("VORNTRC_FILENAME", log_path.c_str(), 1);
  App app;
  app.run();
  app.appSetLogger(nullptr);
  vrnlog(3, "hello");
  EXPECT_NE(content(log_path).find(" hello\n"), std::string::npos);
}

// The address stays, as a mark; what is logged goes to standard error, and nothing is freed twice.
TEST_F(AppShellTest, LoggerThatCannotBeReplacedIsNotUsedAgain) {
  LogCapture log;
  VrnLogSpec spec;
  spec.filename = "/nonexistent/log";
  {
    App app;
    app.run();
    const VrnLog* const former = app.appLogger();
    EXPECT_EQ(failure_of([&] { app.appSetLogger(&spec); }),
              Failure(2, "Failed to open logfile=/nonexistent/log"));
    EXPECT_EQ(app.appLogger(), former);
    vrnlog(3, "after the failure");
    EXPECT_EQ(failure_of([&] { app.appSetLogger(&spec); }).first, 2);
    EXPECT_EQ(app.appLogger(), former);
    vrnlog(1, "after the second");
  }
  const std::string prefix = "*** PID=" + std::to_string(getpid()) + ": ";
  EXPECT_NE(log.raw().find(prefix + "after the failure\n"), std::string::npos);
  EXPECT_NE(log.raw().find(prefix + "after the second\n"), std::string::npos);
  EXPECT_NE(log.raw().find(prefix + "AppShell.dtor - app\n"), std::string::npos);
}

TEST_F(AppShellTest, LoggerIsMadeAfterOneThatCouldNotBeReplaced) {
  const std::string log_path = file("");
  VrnLogSpec spec;
  spec.filename = "/nonexistent/log";
  App app;
  app.run();
  EXPECT_EQ(failure_of([&] { app.appSetLogger(&spec); }).first, 2);
  spec.filename = log_path;
  app.appSetLogger(&spec);
  vrnlog(3, "hello");
  EXPECT_NE(content(log_path).find(" hello\n"), std::string::npos);
}

}  // namespace
}  // namespace vornfc
