#pragma once
// The event manager's loop as a test drives it, and objects to register there that record what they
// are told.
//
//   Loop loop;
//   CountingTimer timer("t");
//   loop.on_dispatcher([&] { timer.startTimer(60, 0, 0, 0); });
//   loop.on_dispatcher([&] { timer.stopTimer(); });
//   loop.run_until([&] { return timer.stopped == 1; });

#include "polling.h"
#include "vornfc/async_rcvr.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/file.h"
#include "vornfc/timer.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

using Call = std::function<void()>;
using Condition = std::function<bool()>;

// Calls what the test put into its two fields, and counts.
class CountingTimer : public vornfc::VrnTimer {
 public:
  explicit CountingTimer(const std::string& name) : VrnTimer(name) {}
  CountingTimer(const std::string& name, Call call) : VrnTimer(name), on_expired(std::move(call)) {}

  void timerExpired() override;
  void timerStopped() override;

  int expired = 0;
  int stopped = 0;
  Call on_expired;
  Call on_stopped;
};

// What a cancellation told.
struct Cancelled {
  vornfc::VrnFile* file;
  bool hangup;
  bool err;

  bool operator==(const Cancelled& other) const {
    return file == other.file && hangup == other.hangup && err == other.err;
  }
};

// Without a call of the test's, an input watcher reads what is there.
class RecordingAIO : public vornfc::VrnAIO {
 public:
  using Ready = std::function<void(vornfc::VrnFile*)>;

  static constexpr bool Input = true;
  static constexpr bool Output = false;

  RecordingAIO(bool direction, const std::string& name, Ready call = nullptr)
      : VrnAIO(direction, name), on_ready(std::move(call)) {}

  void aioReady(vornfc::VrnFile* file) override;
  void aioCancelled(vornfc::VrnFile* file, bool hangup, bool err) override;

  int ready = 0;
  std::string received;
  std::vector<Cancelled> cancelled;
  Ready on_ready;
  Call on_cancelled;
};

class RecordingReceiver : public vornfc::VrnAsyncReceiver {
 public:
  explicit RecordingReceiver(const std::string& name) : VrnAsyncReceiver(name) {}

  void aioReady(vornfc::VrnFile* file) override;
  void aioRemoved(vornfc::VrnFile* file, bool hangup, bool err) override;

  int ready = 0;
  std::string received;
  std::vector<Cancelled> removed;
  RecordingAIO::Ready on_ready;
  Call on_removed;
};

class RecordingHandler : public vornfc::VrnSignalHandler {
 public:
  explicit RecordingHandler(const char* name = "handler") : tag(name) {}

  void signalReceived(int signo) override;
  void signalStopped(int signo) override;
  const char* sigtag() const override { return tag; }

  std::vector<int> received;
  std::vector<int> stopped;
  Call on_received;
  Call on_stopped;

 private:
  const char* const tag;
};

// Two connected sockets: one for the library to watch, the other, the peer, in the test's hand.
class Connection {
 public:
  explicit Connection(const std::string& name = "file");
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { hang_up(); }

  void send(const std::string& text) const;  // from the peer
  void fill();                               // until the watched end has no room to write
  void hang_up();                            // closes the peer

  vornfc::VrnFile file;

 private:
  int peer;
};

// The one event manager, which is made and destroyed with this object. It runs on the thread that
// made it. While it runs, poll() is called in short slices, of which the loop sees nothing, and
// between them the conditions are looked at.
class Loop {
 public:
  Loop();
  ~Loop();
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;

  // Runs `call` inside a callback of the loop, once it runs. Calls are made one by one, in order,
  // each in a turn of its own.
  void on_dispatcher(Call call) { when(nullptr, std::move(call)); }

  // The same, but not before `ready`. Later calls wait for this one.
  void when(Condition ready, Call call);

  // Runs the loop until all calls are made and then `reached`, which has to be within 10 seconds,
  // or the test fails; stops the loop, as a callback would, and returns when it has ended.
  void run_until(Condition reached);

  // Runs the loop until it ends by itself, within the same time.
  void run();

  // Runs until all calls are made.
  void run_calls();

  // From now on time passes only in poll(): a wait without events takes all its time at once. The
  // time of day begins at `start`.
  void use_own_clock(const timeval& start);
  void pass(long microseconds);  // time passes in a callback

  timeval now{};  // the time of day with a clock of its own

  vornfc::VrnEvtMgrNative* const mgr;

  // The registrar's pipe.
  int pipe_read_end = -1;
  int pipe_write_end = -1;

  // What reached poll(): the last entries, and every time-out.
  std::vector<pollfd> entries;
  std::vector<int> timeouts;
  Call before_poll;  // called before every poll(), on the dispatcher thread

 private:
  struct Step {
    Condition ready;
    Call call;
  };

  explicit Loop(std::vector<int> open_before);

  void start();
  int wait(pollfd* polled, nfds_t count, int timeout);
  void look_at_conditions();
  void make_next_call();

  std::deque<Step> steps;
  std::unique_ptr<CountingTimer> step_timer;
  bool step_started = false;
  Condition end;
  bool ended = false;  // the condition was met, the stop is on its way
  bool own_clock = false;
  std::chrono::steady_clock::time_point deadline;
  sys::Poll stand_in;
};

std::vector<int> open_descriptors();

// Runs `call` on another thread, to its end.
void elsewhere(const Call& call);
