#include "timers.h"

#include <asio.hpp>

namespace {

asio::io_context context(1);
std::vector<asio::steady_timer> timers;
size_t cancelled;

void open(size_t count) {
  timers.reserve(count);
  for (size_t i = 0; i < count; ++i) timers.emplace_back(context);
}

void start(size_t timer, long usec) {
  timers[timer].expires_after(std::chrono::microseconds(usec));
  timers[timer].async_wait([timer](const asio::error_code& error) {
    if (!error) expired(timer);
  });
}

// A wait that is cancelled completes in the loop, and keeps its memory until then.
void stop(size_t timer) {
  timers[timer].cancel();
  if (++cancelled % 1000 == 0) context.poll();
}

void run() {
  context.run();
}

void quit() {
  context.stop();
}

const compare::Enter<Timers> entry("asio", {open, start, stop, run, quit});

}  // namespace
