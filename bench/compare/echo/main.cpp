// TCP echo: messages per second, their latency, and the CPU time that the server spends on each.
//   connections=50   that are busy, each with one message under way
//   size=64          bytes in a message
//   idle=0           further connections that say nothing
//   seconds=1        of measuring
#include "echo.h"

#include <arpa/inet.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using compare::now;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::exit(1);
}

sockaddr_in loopback() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int listen_on_loopback() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  const sockaddr_in address = loopback();
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) fail("bind");
  if (listen(fd, 4096) == -1) fail("listen");
  return fd;
}

int connect_to(int listening) {
  sockaddr_in address;
  socklen_t size = sizeof address;
  getsockname(listening, reinterpret_cast<sockaddr*>(&address), &size);
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd == -1) fail("socket");
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    fail("connect");
  }
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

struct Caller {
  int fd;
  size_t received = 0;
  double sent_at = 0;

  void send(const std::string& message) {
    received = 0;
    sent_at = now();
    for (size_t sent = 0; sent < message.size();) {
      const ssize_t count = write(fd, message.data() + sent, message.size() - sent);
      if (count == -1 && errno != EINTR) fail("write");
      if (count > 0) sent += static_cast<size_t>(count);
    }
  }
};

// CPU seconds that the process has used so far.
double cpu_of(pid_t pid) {
  clockid_t clock;
  if (clock_getcpuclockid(pid, &clock) != 0) fail("clock_getcpuclockid");
  return compare::seconds_of(clock);
}

void measure(const Serve& serve, const compare::Arguments& arguments) {
  const auto connections = static_cast<size_t>(arguments.number("connections", 50));
  const auto size = static_cast<size_t>(arguments.number("size", 64));
  const auto idle = static_cast<size_t>(arguments.number("idle", 0));
  const auto seconds = static_cast<double>(arguments.number("seconds", 1));

  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);

  const int listening = listen_on_loopback();
  const pid_t server = fork();
  if (server == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // also where the measurement fails
    serve(listening);
    _exit(1);
  }

  const std::string message(size, 'm');
  std::vector<char> buffer(std::max<size_t>(size, 65536));
  std::vector<int> silent;
  for (size_t i = 0; i < idle; ++i) silent.push_back(connect_to(listening));
  std::vector<Caller> callers;
  const int ready = epoll_create1(0);
  for (size_t i = 0; i < connections; ++i) {
    callers.push_back({connect_to(listening)});
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = i;
    epoll_ctl(ready, EPOLL_CTL_ADD, callers.back().fd, &event);
  }

  std::vector<double> latencies;
  latencies.reserve(1 << 20);
  const double warm = now() + 0.2;
  double begin = 0, end = 0, cpu_begin = 0;
  bool measuring = false;
  for (Caller& caller : callers) caller.send(message);
  for (;;) {
    epoll_event events[64];
    const int count = epoll_wait(ready, events, 64, 5000);
    if (count <= 0) fail("no answer within 5 s");
    const double time = now();
    if (!measuring && time >= warm) {
      measuring = true;
      begin = time;
      end = begin + seconds;
      cpu_begin = cpu_of(server);
    }
    if (measuring && time >= end) {
      end = time;
      break;
    }
    for (int i = 0; i < count; ++i) {
      Caller& caller = callers[events[i].data.u64];
      const ssize_t got = read(caller.fd, buffer.data(), buffer.size());
      if (got <= 0) fail("read");
      caller.received += static_cast<size_t>(got);
      if (caller.received < size) continue;
      if (measuring) latencies.push_back(now() - caller.sent_at);
      caller.send(message);
    }
  }
  const double server_cpu = cpu_of(server) - cpu_begin;
  kill(server, SIGKILL);
  waitpid(server, nullptr, 0);
  if (latencies.empty()) fail("no message");

  std::sort(latencies.begin(), latencies.end());
  const auto messages = static_cast<double>(latencies.size());
  compare::report("messages_per_s", messages / (end - begin));
  compare::report("p50_us", latencies[latencies.size() / 2] * 1e6);
  compare::report("p99_us", latencies[latencies.size() * 99 / 100] * 1e6);
  compare::report("cpu_us_per_message", server_cpu / messages * 1e6);
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  return compare::run<Serve>(argc, argv, measure);
}
