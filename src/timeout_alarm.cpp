#include "timeout_alarm.h"

#include <sched.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace vornfc {

std::atomic<bool> TimeoutAlarm::active{false};
std::atomic<bool> TimeoutAlarm::fired{false};
std::atomic<int> TimeoutAlarm::handlers{0};
std::atomic<pthread_t> TimeoutAlarm::thread{};
static_assert(std::atomic<pthread_t>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "used by a signal handler");

TimeoutAlarm::TimeoutAlarm(unsigned seconds) : limit(seconds), saved_alarm(alarm(0)) {
  thread = pthread_self();
  fired = false;
  active = true;
  struct sigaction action {};
  action.sa_handler = handle;  // no SA_RESTART: the alarm has to interrupt the call
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, &saved_action);
  arm();
}

TimeoutAlarm::~TimeoutAlarm() {
  const int saved_errno = errno;
  alarm(0);
  take_back();
  sigaction(SIGALRM, &saved_action, nullptr);
  alarm(saved_alarm);
  errno = saved_errno;
}

void TimeoutAlarm::arm() {
  alarm(limit);
  itimerval timer{};
  if (getitimer(ITIMER_REAL, &timer) != 0) return;
  timer.it_interval = timeval{0, 10000};
  if (!timerisset(&timer.it_value)) timer.it_value = timer.it_interval;  // it has gone off already
  setitimer(ITIMER_REAL, &timer, nullptr);
}

// The alarm is sent to the process, so it may arrive on a thread whose calls are not timed: the
// system call to be interrupted is the other's.
void TimeoutAlarm::handle(int signo) {
  const int saved_errno = errno;
  ++handlers;
  if (active) {
    fired = true;
    if (!pthread_equal(pthread_self(), thread)) pthread_kill(thread, signo);
  }
  --handlers;
  errno = saved_errno;
}

// Leaves no SIGALRM of this alarm behind: one that were delivered after the previous action is back
// could end the process.
void TimeoutAlarm::take_back() {
  sigset_t alarm_only, previous;
  sigemptyset(&alarm_only);
  sigaddset(&alarm_only, SIGALRM);
  pthread_sigmask(SIG_BLOCK, &alarm_only, &previous);
  active = false;
  while (handlers != 0) sched_yield();
  const timespec at_once{};
  while (sigtimedwait(&alarm_only, nullptr, &at_once) == SIGALRM) {
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

}  // namespace vornfc
