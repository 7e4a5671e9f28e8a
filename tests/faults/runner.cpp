#include "runner.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>

const char* work_directory = nullptr;

// Present under the address sanitizer: non-zero when memory was leaked, which it then describes.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" __attribute__((weak)) int __lsan_do_recoverable_leak_check();

namespace {

constexpr int MostDescriptors = 128;
constexpr int HangSeconds = 20;
constexpr int MostCpuSeconds = 20;

int log_file = -1;    // what the standard error of a run is
bool judged = false;  // the run is over

using Descriptors = std::array<bool, MostDescriptors>;

Descriptors open_descriptors() {
  Descriptors open{};
  for (int fd = 0; fd < MostDescriptors; ++fd) {
    open[static_cast<std::size_t>(fd)] = fcntl(fd, F_GETFD) != -1;
  }
  return open;
}

void compare_descriptors(const Descriptors& before) {
  const Descriptors after = open_descriptors();
  for (std::size_t fd = 0; fd < after.size(); ++fd) {
    if (after[fd] && !before[fd]) fail("leak: descriptor %d is left open", static_cast<int>(fd));
    if (!after[fd] && before[fd]) fail("descriptor %d was closed", static_cast<int>(fd));
  }
}

// Ends the process without what was registered for its end. A build for coverage writes its counts
// there.
[[noreturn]] void leave() {
#ifdef VORNFC_TEST_COVERAGE
  judged = true;
  std::exit(0);
#else
  _exit(0);
#endif
}

void on_terminate() {
  inject::disarm();
  if (!report->may_terminate) {
    fail("crash: std::terminate()");
    abort();
  }
  report->reached = inject::reached();
  report->complete = true;
  leave();
}

void on_spin() {
  inject::disarm();
  report->reached = inject::reached();
  fail("spin: more than %d calls", inject::hooks.most_calls);
  _exit(0);
}

// A run that ends by exit() is judged by its log.
void on_exit_call() {
  if (judged) return;
  inject::disarm();
  report->reached = inject::reached();
  if (log_holds("Failed to stop") && log_holds("ABORT APP")) {
    report->complete = true;
  } else if (!report->complete) {
    fail("exit(): %s", log_holds("ABORT APP") ? "an object was destroyed while active" : "why?");
  }
  leave();
}

void prepare_process() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_IGN);
  dup2(log_file, STDERR_FILENO);
  const rlimit cpu{MostCpuSeconds, MostCpuSeconds};
  setrlimit(RLIMIT_CPU, &cpu);
  const rlimit core{0, 0};
  setrlimit(RLIMIT_CORE, &core);
  std::set_terminate(on_terminate);
  atexit(on_exit_call);
  setenv("VORNTRC_APPTAG", "y", 1);  // every line of the library's goes to the log
  setenv("TZ", "UTC", 1);
  inject::hooks.spins = on_spin;
  inject::hooks.forked = [] { report->pid = getpid(); };
}

[[noreturn]] void run_scenario(const Scenario& scenario, const Point* point) {
  prepare_process();
  const Descriptors before = open_descriptors();
  const long allocations = inject::allocations();
  if (point) {
    report->harmless = inject::is_harmless(point->call, point->fault);
    inject::arm(point->call, point->number, point->fault);
  } else {
    inject::arm();
  }
  scenario.run();
  inject::disarm();
  report->reached = inject::reached();
  for (std::size_t i = 0; i < inject::CallKinds; ++i) {
    report->counts[i] = inject::count(static_cast<inject::Call>(i));
  }
  compare_descriptors(before);
  const long left = inject::allocations() - allocations;
  if (left != 0) fail("leak: %ld allocations are not freed", left);
  if (__lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check() != 0) {
    fail("leak: the sanitizer has found one");
  }
  if (report->stalled && !report->told && !log_tells()) fail("hang: silent");
  const bool quiet = !report->told && !report->stalled && !log_tells();
  if (!point && !quiet) fail("a run without a fault tells of a failure");
  if (report->harmless && report->reached && !quiet) {
    fail("a harmless fault is told of");
  }
  report->complete = true;
  leave();
}

void judge_status(int status, Report* result) {
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
  char text[160];
  if (WIFSIGNALED(status)) {
    std::snprintf(text, sizeof text,
                  WTERMSIG(status) == SIGXCPU ? "spin: signal %d" : "crash: signal %d",
                  WTERMSIG(status));
  } else {
    std::snprintf(text, sizeof text, "the process has ended with status %d", WEXITSTATUS(status));
  }
  result->reached = true;
  if (result->failure[0] == '\0') std::strcpy(result->failure, text);
}

// Until every process of the run has ended: a daemon's first one ends at once.
void wait_for_end(Report* result) {
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  const time_t deadline = time(nullptr) + HangSeconds;
  for (;;) {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid == -1) return;
    if (pid > 0) {
      judge_status(status, result);
      continue;
    }
    if (time(nullptr) > deadline) {
      result->reached = true;
      if (result->failure[0] == '\0') std::strcpy(result->failure, "hang");
      kill(result->pid, SIGKILL);
      waitpid(result->pid, nullptr, 0);
      return;
    }
    const timespec second{1, 0};
    sigtimedwait(&child, nullptr, &second);
  }
}

void empty_work_directory() {
  DIR* const directory = opendir(work_directory);
  if (!directory) return;
  while (const dirent* const entry = readdir(directory)) {
    if (entry->d_name[0] == '.') continue;
    unlink((std::string(work_directory) + "/" + entry->d_name).c_str());
  }
  closedir(directory);
}

void copy_to_stderr() {
  char text[4096];
  off_t position = 0;
  ssize_t size;
  while ((size = pread(log_file, text, sizeof text, position)) > 0) {
    if (write(STDERR_FILENO, text, static_cast<std::size_t>(size)) == -1) return;
    position += size;
  }
}

}  // namespace

std::string text_of(const Point& point) {
  return std::string(point.scenario->name) + ":" + inject::name_of(point.call) + ":" +
         std::to_string(point.number) + ":" + inject::text_of(point.fault);
}

void* shared_memory(std::size_t size) {
  void* const memory =
      mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::perror("mmap");
    std::exit(2);
  }
  return memory;
}

void run_once(const Scenario& scenario, const Point* point, Report* result, bool verbose) {
  if (ftruncate(log_file, 0) == -1) {
    std::perror("log");
    std::exit(2);
  }
  lseek(log_file, 0, SEEK_SET);
  report = result;
  std::fflush(stdout);  // or the child might write it too
  const pid_t pid = fork();
  if (pid == -1) {
    std::perror("fork");
    std::exit(2);
  }
  if (pid == 0) {
    report->pid = getpid();
    run_scenario(scenario, point);
  }
  wait_for_end(result);
  if (result->failure[0] == '\0' && !result->complete) {
    std::strcpy(result->failure, "the run has ended early");
  }
  if (verbose) copy_to_stderr();
  empty_work_directory();
}

void enter_work_directory() {
  static char path[32];
  std::strcpy(path, "/tmp/faults-XXXXXX");
  work_directory = mkdtemp(path);
  log_file = memfd_create("log", MFD_CLOEXEC);
  if (!work_directory || log_file == -1) {
    std::perror("faults_test: directory and log");
    std::exit(2);
  }
  prctl(PR_SET_CHILD_SUBREAPER, 1);  // daemons are waited for like children
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child, nullptr);
}

void leave_work_directory() {
  empty_work_directory();
  rmdir(work_directory);
  close(log_file);
}
