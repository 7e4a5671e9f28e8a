// Blocking transfers with and without a time-out: whole, in parts, at the end of the file, and
// given up by the alarm.

#include "report.h"
#include "scenario.h"
#include "vornfc/file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>

using inject::Own;
using vornfc::VrnFile;

namespace {

constexpr int Size = 64;
using Data = std::array<char, Size>;

int ends[2] = {-1, -1};
bool sends_late = false;

Data pattern() {
  Data data;
  for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('A' + i % 26);
  return data;
}

void open_pair() {
  const Own own;
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == -1) fail("socketpair");
}

void close_pair() {
  const Own own;
  for (int& end : ends) {
    if (end != -1) close(end);
    end = -1;
  }
}

void give(std::size_t count) {
  const Own own;
  const Data data = pattern();
  if (send(ends[1], data.data(), count, 0) == -1) fail("send");
}

// The transfer's result is what it should be, or the failure was reported.
void expect(int result, int wanted, const Data& data) {
  const Own own;
  if (result == -1) told();
  if (result > 0 &&
      std::memcmp(data.data(), pattern().data(), static_cast<std::size_t>(result)) != 0) {
    fail("corrupt: %d bytes", result);
  }
  if (result > wanted) fail("%d bytes of %d", result, wanted);
  if (result != wanted) lost("a transfer is not whole");
}

void read_whole(int timeout) {
  open_pair();
  give(Size);
  Data data{};
  int result = -1;
  library([&] { result = VrnFile::bread(ends[0], data.data(), Size, false, timeout, nullptr); });
  expect(result, Size, data);
  close_pair();
}

void write_whole(int timeout) {
  open_pair();
  Data data = pattern();
  int result = -1;
  library([&] { result = VrnFile::bwrite(ends[0], data.data(), Size, timeout); });
  {
    const Own own;
    Data received{};
    if (recv(ends[1], received.data(), received.size(), MSG_DONTWAIT) != result && result > 0) {
      fail("%d bytes were not written", result);
    }
    data = received;
  }
  expect(result, Size, data);
  close_pair();
}

// A half comes, then nothing. The time-out is reported by the count.
void time_out(int timeout) {
  open_pair();
  give(Size / 2);
  Data data{};
  int result = -1;
  library([&] { result = VrnFile::bread(ends[0], data.data(), Size, false, timeout, nullptr); });
  expect(result, Size / 2, data);
  close_pair();
}

// The descriptor does not block, and the data come while the library sleeps.
void read_late() {
  open_pair();
  {
    const Own own;
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
  }
  sends_late = true;
  inject::hooks.sleeps = [] {
    if (sends_late) give(Size);
    sends_late = false;
  };
  Data data{};
  int result = -1;
  library([&] { result = VrnFile::bread(ends[0], data.data(), 0, true, 0, nullptr); });
  expect(result, 0, data);
  library([&] { result = VrnFile::bread(ends[0], data.data(), Size, true, 0, nullptr); });
  expect(result, 0, data);
  library([&] { result = VrnFile::bread(ends[0], data.data(), Size, false, -2, nullptr); });
  expect(result, Size, data);
  close_pair();
}

void read_to_end() {
  open_pair();
  give(Size / 2);
  {
    const Own own;
    shutdown(ends[1], SHUT_WR);
  }
  Data data{};
  bool at_end = false;
  int result = -1;
  library([&] { result = VrnFile::bread(ends[0], data.data(), Size, false, 1, &at_end); });
  expect(result, Size / 2, data);
  if (result == Size / 2 && !at_end) lost("the end of the file");
  close_pair();
}

// By a file object, with an alarm of the application's pending: it is there afterwards.
void read_by_file() {
  open_pair();
  give(Size);
  Data data{};
  int result = -1;
  {
    const Own own;
    const inject::Lib lib;
    alarm(60);
  }
  library([&] {
    VrnFile file;
    file.assign(ends[0], "pair", false);
    file.setBlockingMode(false);
    file.setBlockingMode(true);
    result = VrnFile::bread(file.fd, data.data(), Size, false, 5, nullptr);
  });
  expect(result, Size, data);
  unsigned left = 0;
  {
    const inject::Lib lib;
    left = alarm(0);
  }
  if (left == 0 && !report->told) fail("the application's alarm is lost");
  close_pair();
}

void check_signal_action() {
  const Own own;
  struct sigaction action {};
  sigaction(SIGALRM, nullptr, &action);
  if (action.sa_handler != SIG_DFL) lost("the action of SIGALRM");
  sigset_t blocked;
  sigprocmask(SIG_SETMASK, nullptr, &blocked);
  if (sigismember(&blocked, SIGALRM)) lost("the mask of SIGALRM");
}

}  // namespace

void run_timed_io() {
  for (const int timeout : {0, 5, -5}) {
    read_whole(timeout);
    write_whole(timeout);
  }
  time_out(1);
  time_out(-1);
  read_late();
  read_to_end();
  read_by_file();
  check_signal_action();
}
