#include "polling.h"

#include "planned_call.h"

#include <stdlib.h>

#include <atomic>
#include <ctime>

namespace {

thread_local const sys::Poll* stand_in = nullptr;

constexpr long MICROSECONDS = 1000000;
constexpr long NOT_SET = -1;
std::atomic<long> set_time{NOT_SET};  // microseconds since the epoch

}  // namespace

namespace sys {

void set_poll(const Poll* wait) {
  stand_in = wait;
}

int system_poll(pollfd* entries, nfds_t count, int timeout) {
  return forward("poll", &poll, entries, count, timeout);
}

void set_clock(const timeval& now) {
  set_time = now.tv_sec * MICROSECONDS + now.tv_usec;
}

bool gives_poll_the_table() {
  return !getenv("VORN_EM_POLLMAX");
}

}  // namespace sys

extern "C" {

int poll(pollfd* entries, nfds_t count, int timeout) {
  if (const int error = sys::planned_error("poll")) {
    errno = error;
    return -1;
  }
  return stand_in ? (*stand_in)(entries, count, timeout)
                  : sys::system_poll(entries, count, timeout);
}

int gettimeofday(timeval* now, void*) noexcept {
  const long time = set_time;
  if (time != NOT_SET) {
    *now = {time / MICROSECONDS, time % MICROSECONDS};
    return 0;
  }
  timespec present;
  clock_gettime(CLOCK_REALTIME, &present);
  *now = {present.tv_sec, present.tv_nsec / 1000};
  return 0;
}

}  // extern "C"
