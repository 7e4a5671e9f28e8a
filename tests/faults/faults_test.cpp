// Makes every call of the library fail, one by one: each scenario is run once to count its calls,
// then once for each call and each fault that the call may meet. A fault may end an operation as
// documented; the library never crashes, hangs, spins, leaks, closes a descriptor twice or loses
// data without a word.
//
//   --scenario NAME  only this one
//   --sample N       about N points a scenario, chosen at random; default: all
//   --seed S         of the choice; default: a new one, printed
//   --jobs N         processes at the same time, which mostly sleep; default: 4 a processor
//   --point P        one point, as the list of failures names it, with what the library logs
//   --calls          nothing but the names of the calls that are made to fail

#include "runner.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr Scenario scenarios[] = {
    {"echo", run_echo},         {"echo-queue", run_echo_queue}, {"relay", run_relay},
    {"logging", run_logging},   {"reload", run_reload},         {"daemonise", run_daemonise},
    {"timed-io", run_timed_io}, {"connect", run_connect},
};

struct Options {
  std::string scenario;
  std::string point;
  std::size_t sample = 0;  // 0: all
  unsigned seed = std::random_device()();
  unsigned jobs = 4 * static_cast<unsigned>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
};

[[noreturn]] void usage() {
  std::fprintf(stderr,
               "usage: faults_test [--scenario NAME] [--sample N] [--seed S] [--jobs N] | "
               "--point SCENARIO:CALL:NUMBER:FAULT\n");
  std::exit(2);
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; i += 2) {
    const std::string name = argv[i];
    if (i + 1 == argc) usage();
    const char* const value = argv[i + 1];
    const auto number = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
    if (name == "--scenario") {
      options.scenario = value;
    } else if (name == "--sample") {
      options.sample = number;
    } else if (name == "--seed") {
      options.seed = number;
    } else if (name == "--jobs") {
      options.jobs = std::max(1U, number);
    } else if (name == "--point") {
      options.point = value;
    } else {
      usage();
    }
  }
  return options;
}

const Scenario& scenario_named(const std::string& name) {
  for (const Scenario& scenario : scenarios) {
    if (name == scenario.name) return scenario;
  }
  std::fprintf(stderr, "faults_test: no scenario %s\n", name.c_str());
  std::exit(2);
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find(':', begin)) != std::string::npos; begin = end + 1) {
    parts.push_back(text.substr(begin, end - begin));
  }
  parts.push_back(text.substr(begin));
  return parts;
}

int run_point(const std::string& text) {
  const std::vector<std::string> parts = split(text);
  if (parts.size() != 4) usage();
  Point point{&scenario_named(parts[0]), inject::Call::Accept, std::atoi(parts[2].c_str()), {}};
  if (!inject::call_named(parts[1], &point.call)) usage();
  if (!inject::fault_named(parts[3], &point.fault)) usage();
  auto* const result = static_cast<Report*>(shared_memory(sizeof(Report)));
  enter_work_directory();
  run_once(*point.scenario, &point, result, true);
  leave_work_directory();
  std::printf("%s: %s\n", text.c_str(),
              result->failure[0] ? result->failure
              : result->reached  ? "passed"
                                 : "not reached");
  return result->failure[0] == '\0' ? 0 : 1;
}

// The points of a scenario, by the calls of a run without a fault.
std::vector<Point> points_of(const Scenario& scenario, bool* good) {
  auto* const result = static_cast<Report*>(shared_memory(sizeof(Report)));
  run_once(scenario, nullptr, result, false);
  std::vector<Point> points;
  if (result->failure[0] != '\0') {
    std::printf("%s: without a fault: %s\n", scenario.name, result->failure);
    *good = false;
  }
  for (std::size_t i = 0; i < inject::CallKinds; ++i) {
    const auto call = static_cast<inject::Call>(i);
    const std::vector<inject::Fault> faults = inject::faults_of(call);
    for (int number = 1; number <= result->counts[i]; ++number) {
      for (const inject::Fault& fault : faults) points.push_back({&scenario, call, number, fault});
    }
    if (result->counts[i] > 0) {
      std::printf("  %s %s: %d calls\n", scenario.name, inject::name_of(call), result->counts[i]);
    }
  }
  return points;
}

struct Tally {
  std::atomic<std::size_t> next;
  std::atomic<std::size_t> done;
  Report reports[1];  // as many as there are points
};

// One of the processes that share the points.
void work(const std::vector<Point>& points, Tally* tally) {
  enter_work_directory();
  for (std::size_t i; (i = tally->next++) < points.size();) {
    run_once(*points[i].scenario, &points[i], &tally->reports[i], false);
    const std::size_t done = ++tally->done;
    if (done % 1000 != 0) continue;
    std::printf("... %zu of %zu points\n", done, points.size());
    std::fflush(stdout);
  }
  leave_work_directory();
}

// True: every process has ended well.
bool run_all(const std::vector<Point>& points, unsigned jobs, Tally* tally) {
  std::fflush(stdout);
  for (unsigned i = 0; i < jobs; ++i) {
    const pid_t pid = fork();
    if (pid == -1) return false;
    if (pid != 0) continue;
    work(points, tally);
    _exit(0);
  }
  bool good = true;
  for (int status = 0; waitpid(-1, &status, 0) > 0;) good = good && status == 0;
  return good;
}

bool summarise(const std::vector<Point>& points, const Tally& tally) {
  std::size_t reached = 0;
  std::size_t failed = 0;
  for (std::size_t i = 0; i < points.size(); ++i) {
    const Report& result = tally.reports[i];
    if (result.reached) ++reached;
    if (result.failure[0] == '\0') continue;
    ++failed;
    std::printf("FAILED --point %s\n  %s\n", text_of(points[i]).c_str(), result.failure);
  }
  for (const Scenario& scenario : scenarios) {
    std::size_t of_scenario = 0;
    std::size_t reached_of_scenario = 0;
    for (std::size_t i = 0; i < points.size(); ++i) {
      if (points[i].scenario != &scenario) continue;
      ++of_scenario;
      if (tally.reports[i].reached) ++reached_of_scenario;
    }
    if (of_scenario == 0) continue;
    std::printf("%s: %zu points, %zu reached\n", scenario.name, of_scenario, reached_of_scenario);
  }
  std::printf("faults: %zu points, %zu reached, %zu failed\n", points.size(), reached, failed);
  return failed == 0 && reached > 0;
}

int list_calls() {
  for (std::size_t i = 0; i < inject::CallKinds; ++i) {
    std::printf("%s\n", inject::name_of(static_cast<inject::Call>(i)));
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--calls") == 0) return list_calls();
  const Options options = parse(argc, argv);
  if (!options.point.empty()) return run_point(options.point);
  std::mt19937 random(options.seed);
  std::printf("seed %u\n", options.seed);
  bool good = true;
  std::vector<Point> points;
  enter_work_directory();
  for (const Scenario& scenario : scenarios) {
    if (!options.scenario.empty() && &scenario != &scenario_named(options.scenario)) continue;
    std::vector<Point> of_scenario = points_of(scenario, &good);
    if (options.sample != 0 && of_scenario.size() > options.sample) {
      std::shuffle(of_scenario.begin(), of_scenario.end(), random);
      of_scenario.resize(options.sample);
    }
    points.insert(points.end(), of_scenario.begin(), of_scenario.end());
  }
  leave_work_directory();
  auto* const tally =
      static_cast<Tally*>(shared_memory(sizeof(Tally) + points.size() * sizeof(Report)));
  good = run_all(points, options.jobs, tally) && good;
  return summarise(points, *tally) && good ? 0 : 1;
}
