#pragma once
// What the programs that compare contenders share. Each program answers one question; each
// contender has a source of its own in the program's directory and does there the same work. The
// measuring code is the program's, one for all.
//
//   echo --list                      the contenders that were built in, one a line
//   echo CONTENDER KEY=VALUE...      one measurement: lines of a metric's name and its value

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace compare {

// One contender for a question whose work is a `Work`, a plain function pointer or a struct of
// them.
template <class Work>
struct Contender {
  const char* name;
  Work work;
};

template <class Work>
std::vector<Contender<Work>>& contenders() {
  static std::vector<Contender<Work>> all;
  return all;
}

// A static object of this class enters a contender.
template <class Work>
struct Enter {
  Enter(const char* name, Work work) { contenders<Work>().push_back({name, work}); }
};

struct Arguments {
  // The value of `key`, or what is given when the command line has none.
  long number(const char* key, long otherwise) const {
    for (const std::string& word : words) {
      const size_t length = std::strlen(key);
      if (word.compare(0, length, key) == 0 && word[length] == '=') {
        return std::atol(word.c_str() + length + 1);
      }
    }
    return otherwise;
  }

  std::vector<std::string> words;
};

inline void report(const char* metric, double value) {
  std::printf("%s %.6g\n", metric, value);
}

inline double seconds_of(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
inline double now() {
  return seconds_of(CLOCK_MONOTONIC);
}
inline double cpu() {
  return seconds_of(CLOCK_PROCESS_CPUTIME_ID);
}

// The program's main: finds the contender and has it measured.
template <class Work>
int run(int argc, char** argv, void (*measure)(const Work&, const Arguments&)) {
  if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
    for (const auto& contender : contenders<Work>()) std::puts(contender.name);
    return 0;
  }
  if (argc >= 2) {
    for (const auto& contender : contenders<Work>()) {
      if (std::strcmp(contender.name, argv[1]) != 0) continue;
      measure(contender.work, Arguments{{argv + 2, argv + argc}});
      return 0;
    }
  }
  std::fprintf(stderr, "usage: %s --list | CONTENDER [KEY=VALUE...]\n", argv[0]);
  return 2;
}

}  // namespace compare
