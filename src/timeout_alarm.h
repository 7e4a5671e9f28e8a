#pragma once
// The time-out of a blocking system call.

#include <pthread.h>
#include <signal.h>

#include <atomic>

namespace vornfc {

// The alarm of the one timed operation that may run in the process. Its handler only raises a flag,
// so what a call has achieved is seen wherever the alarm falls, and no live object is jumped over.
// The alarm repeats until it is taken back: one that falls between the look at the flag and the
// system call interrupts the call the next time.
//
// The destructor brings back the previous SIGALRM action, and the alarm that was pending with the
// seconds it had left; it leaves errno alone.
class TimeoutAlarm {
 public:
  explicit TimeoutAlarm(unsigned seconds);  // armed
  ~TimeoutAlarm();
  TimeoutAlarm(const TimeoutAlarm&) = delete;
  TimeoutAlarm& operator=(const TimeoutAlarm&) = delete;

  void arm();  // anew
  bool expired() const { return fired; }
  void drop_saved_alarm() { saved_alarm = 0; }  // the alarm that was pending is not brought back

 private:
  static void handle(int signo);
  static void take_back();

  static std::atomic<bool> active;
  static std::atomic<bool> fired;
  static std::atomic<int> handlers;      // handlers that are running, on whatever thread
  static std::atomic<pthread_t> thread;  // the one whose calls are timed

  const unsigned limit;
  unsigned saved_alarm;
  struct sigaction saved_action {};
};

}  // namespace vornfc
