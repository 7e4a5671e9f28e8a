// Bytes that go round in a ring of pipes: the time from one event to the next.
//   watched=100      pipes
//   active=watched   bytes under way, at even distances
//   events=500000    to measure, a second at most
#include "chain.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

namespace {

std::vector<int> next_of;  // the writing end that follows the descriptor
long warm_up = 0;          // events that go before
long limit = 0;
long events = 0;
double begin = 0, end = 0;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

void measure(const Watch& watch, const compare::Arguments& arguments) {
  const auto watched = static_cast<size_t>(arguments.number("watched", 100));
  const auto active = static_cast<size_t>(arguments.number("active", static_cast<long>(watched)));
  limit = arguments.number("events", 500000);
  warm_up = static_cast<long>(watched);

  rlimit files;
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);

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
  if (warm_up > 0) {
    if (--warm_up == 0) begin = compare::now();
    return true;
  }
  ++events;
  if (events < limit && (events % 1000 != 0 || compare::now() < begin + 1)) return true;
  end = compare::now();
  return false;
}

int main(int argc, char** argv) {
  return compare::run<Watch>(argc, argv, measure);
}
