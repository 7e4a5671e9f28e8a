#include "timeout_alarm.h"

#include "vornfc/exception.h"
#include "vornfc/utils.h"

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
  if (sigaction(SIGALRM, &action, &saved_action) == -1) {
    const int reason = errno;
    active = false;
    alarm(saved_alarm);
    throw VrnException(2, "Failed to set the action of SIGALRM (errno=%d)", reason);
  }
  arm();
}

TimeoutAlarm::~TimeoutAlarm() {
  const int saved_errno = errno;
  alarm(0);
  take_back();
  if (sigaction(SIGALRM, &saved_action, nullptr) == -1) {
    vrnlog(1, "Failed to restore the action of SIGALRM (errno=%d)", errno);
  }
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
// could end the process. What is pending for this thread alone has been handled by now; what is
// pending for the process is taken here, blocked or not.
void TimeoutAlarm::take_back() {
  active = false;
  while (handlers != 0) sched_yield();
  sigset_t alarm_only;
  sigemptyset(&alarm_only);
  sigaddset(&alarm_only, SIGALRM);
  const timespec at_once{};
  int taken;
  do {
    taken = sigtimedwait(&alarm_only, nullptr, &at_once);
  } while (taken == SIGALRM || (taken == -1 && errno == EINTR));
}

}  // namespace vornfc
