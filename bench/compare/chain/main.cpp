// Bytes that go round in a ring of pipes: the time from one event to the next.
//   watched=100      pipes
//   active=watched   bytes under way, at even distances
//   events=...       that are measured; a tenth as many go before
#include "chain.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace {

std::vector<int> next_of;  // the writing end that follows the descriptor
long events_left = 0;      // until the end, or until measuring begins
long events_to_measure = 0;
double begin = 0, end = 0;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

void measure(const Watch& watch, const compare::Arguments& arguments) {
  const auto watched = static_cast<size_t>(arguments.number("watched", 100));
  const long all = static_cast<long>(watched);
  const auto active = static_cast<size_t>(arguments.number("active", all));
  // poll() takes a time for each that is watched, however few are active.
  const long events = arguments.number("events", active < watched ? 20000000 / all : 500000);

  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);

  std::vector<int> fds, writing_ends;
  for (size_t i = 0; i < watched; ++i) {
    int ends[2];
    if (pipe2(ends, O_NONBLOCK | O_CLOEXEC) == -1) fail("pipe2");
    fds.push_back(ends[0]);
    writing_ends.push_back(ends[1]);
  }
  next_of.resize(static_cast<size_t>(*std::max_element(fds.begin(), fds.end())) + 1);
  for (size_t i = 0; i < watched; ++i) {
    next_of[static_cast<size_t>(fds[i])] = writing_ends[(i + 1) % watched];
  }
  for (size_t i = 0; i < active; ++i) {
    if (write(writing_ends[i * watched / active], "b", 1) != 1) fail("write");
  }

  events_left = events / 10 + 1;
  events_to_measure = events;
  watch(fds);
  if (end == 0) {
    std::fputs("the loop ended early\n", stderr);
    std::exit(1);
  }
  compare::report("ns_per_event", (end - begin) / static_cast<double>(events) * 1e9);
}

}  // namespace

bool pass(int fd) {
  if (end != 0) return false;
  char byte;
  if (read(fd, &byte, 1) != 1) fail("read");
  if (write(next_of[static_cast<size_t>(fd)], &byte, 1) != 1) fail("write");
  if (--events_left > 0) return true;
  if (begin == 0) {
    events_left = events_to_measure;
    begin = compare::now();
    return true;
  }
  end = compare::now();
  return false;
}

int main(int argc, char** argv) {
  return compare::run<Watch>(argc, argv, measure);
}
