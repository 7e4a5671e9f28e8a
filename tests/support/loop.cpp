#include "loop.h"

#include "vornfc/appshell.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iterator>
#include <system_error>
#include <thread>
#include <utility>

using vornfc::VrnAppShell;
using vornfc::VrnEvtMgr;
using vornfc::VrnEvtMgrNative;
using vornfc::VrnFile;

namespace {

constexpr std::chrono::seconds DEADLINE{10};
constexpr std::chrono::milliseconds SLICE{5};

// A copy is called: the call may destroy the object that holds it.
template <typename... P>
void call_copy(const std::function<void(P...)>& held, P... args) {
  const auto call = held;
  if (call) call(args...);
}

std::string read_all(int fd) {
  std::string text;
  char chunk[4096];
  ssize_t count;
  while ((count = read(fd, chunk, sizeof chunk)) > 0) {
    text.append(chunk, static_cast<std::size_t>(count));
  }
  return text;
}

}  // namespace

void CountingTimer::timerExpired() {
  ++expired;
  call_copy(on_expired);
}

void CountingTimer::timerStopped() {
  ++stopped;
  call_copy(on_stopped);
}

void RecordingAIO::aioReady(VrnFile* file) {
  ++ready;
  if (on_ready) {
    call_copy(on_ready, file);
  } else if (input) {
    received += read_all(file->fd);
  }
}

void RecordingAIO::aioCancelled(VrnFile* file, bool hangup, bool err) {
  cancelled.push_back({file, hangup, err});
  call_copy(on_cancelled);
}

void RecordingReceiver::aioReady(VrnFile* file) {
  ++ready;
  if (on_ready) {
    call_copy(on_ready, file);
  } else {
    received += read_all(file->fd);
  }
}

void RecordingReceiver::aioRemoved(VrnFile* file, bool hangup, bool err) {
  removed.push_back({file, hangup, err});
  call_copy(on_removed);
}

void RecordingHandler::signalReceived(int signo) {
  received.push_back(signo);
  call_copy(on_received);
}

void RecordingHandler::signalStopped(int signo) {
  stopped.push_back(signo);
  call_copy(on_stopped);
}

Connection::Connection(const std::string& name) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  file.assign(ends[0], name, true);
  peer = ends[1];
}

void Connection::send(const std::string& text) const {
  if (write(peer, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    ADD_FAILURE() << "the peer cannot send";
  }
}

void Connection::fill() {
  file.setBlockingMode(false);
  const std::string chunk(4096, 'x');
  while (write(file.fd, chunk.data(), chunk.size()) > 0) {
  }
}

void Connection::hang_up() {
  if (peer != -1) close(peer);
  peer = -1;
}

Loop::Loop() : Loop(open_descriptors()) {}

Loop::Loop(std::vector<int> open_before)
    : mgr(dynamic_cast<VrnEvtMgrNative*>(VrnEvtMgr::instance(0))),
      step_timer(new CountingTimer("step", [this] { make_next_call(); })),
      stand_in([this](pollfd* polled, nfds_t count, int timeout) {
        return wait(polled, count, timeout);
      }) {
  VrnAppShell::evtmgr = mgr;
  const std::vector<int> open_now = open_descriptors();
  std::vector<int> opened;
  std::set_difference(open_now.begin(), open_now.end(), open_before.begin(), open_before.end(),
                      std::back_inserter(opened));
  for (const int fd : opened) {
    const bool writable = (fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY;
    (writable ? pipe_write_end : pipe_read_end) = fd;
  }
}

Loop::~Loop() {
  step_timer.reset();
  VrnEvtMgr::destroy();
  VrnAppShell::evtmgr = nullptr;
}

void Loop::when(Condition ready, Call call) {
  steps.push_back({std::move(ready), std::move(call)});
}

void Loop::run_until(Condition reached) {
  end = std::move(reached);
  start();
  if (!ended) ADD_FAILURE() << "the loop ended before the condition was met";
}

void Loop::run() {
  end = nullptr;
  start();
}

void Loop::run_calls() {
  run_until([] { return true; });
}

void Loop::use_own_clock(const timeval& start_time) {
  own_clock = true;
  now = start_time;
  sys::set_clock(now);
}

void Loop::pass(long microseconds) {
  now.tv_usec += microseconds;
  now.tv_sec += now.tv_usec / 1000000;
  now.tv_usec %= 1000000;
  sys::set_clock(now);
}

void Loop::start() {
  ended = false;
  deadline = std::chrono::steady_clock::now() + DEADLINE;
  sys::set_poll(&stand_in);
  mgr->startDispatcher();
  sys::set_poll(nullptr);
  if (!steps.empty()) ADD_FAILURE() << "the loop ended before every call was made";
}

int Loop::wait(pollfd* polled, nfds_t count, int timeout) {
  entries.assign(polled, polled + count);
  timeouts.push_back(timeout);
  if (before_poll) before_poll();

  const auto limit =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeout, 0));
  for (;;) {
    look_at_conditions();
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now());
    const auto slice = own_clock && timeout >= 0 ? std::chrono::milliseconds(0)
                       : timeout < 0             ? SLICE
                                                 : std::clamp(left, decltype(left)::zero(), SLICE);
    const int ready = sys::system_poll(polled, count, static_cast<int>(slice.count()));
    if (ready != 0) return ready;
    if (own_clock && timeout >= 0) {
      pass(timeout * 1000L);
      return 0;
    }
    if (timeout >= 0 && std::chrono::steady_clock::now() >= limit) return 0;
    if (std::chrono::steady_clock::now() >= deadline) {
      ADD_FAILURE() << "the loop did not get there in time";
      steps.clear();
      mgr->syncstopDispatcher();
      return 0;
    }
  }
}

void Loop::look_at_conditions() {
  if (step_started || ended) return;
  if (steps.empty()) {
    if (!end || !end()) return;
    ended = true;
    mgr->stopDispatcher();
  } else if (!steps.front().ready || steps.front().ready()) {
    step_started = true;
    step_timer->startTimerAbs(0, 0, 0, 0);
  }
}

void Loop::make_next_call() {
  const Call call = std::move(steps.front().call);
  steps.pop_front();
  step_started = false;
  call();
}

std::vector<int> open_descriptors() {
  std::vector<int> result;
  DIR* directory = opendir("/proc/self/fd");
  if (!directory) throw std::system_error(errno, std::generic_category(), "/proc/self/fd");
  while (const dirent* entry = readdir(directory)) {
    if (entry->d_name[0] != '.') result.push_back(std::atoi(entry->d_name));
  }
  result.erase(std::remove(result.begin(), result.end(), dirfd(directory)), result.end());
  closedir(directory);
  std::sort(result.begin(), result.end());
  return result;
}

void elsewhere(const Call& call) {
  std::thread(call).join();
}
