#include "vornfc/client_socket.h"

#include "support/faults.h"
#include "support/log_capture.h"
#include "support/loop.h"
#include "support/manager.h"
#include "support/planned_call.h"
#include "support/sanitizers.h"
#include "support/wait_for.h"
#include "vornfc/appshell.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

// alarm() as this program defines it: recorded, and open to a test that wants another time.
namespace {

struct AlarmCall {
  unsigned seconds;
  unsigned left;  // of the alarm before: the result
};

std::vector<AlarmCall> alarm_calls;
int alarm_usec = 0;             // not 0: an alarm of whole seconds takes so long
bool alarm_waits_long = false;  // returns only when the alarm has gone off

}  // namespace

extern "C" unsigned alarm(unsigned seconds) noexcept {
  unsigned left = 0;
  if (seconds == 0 || alarm_usec == 0) {
    left = sys::forward("alarm", &alarm, seconds);
  } else {
    itimerval timer{}, old{};
    timer.it_value.tv_usec = alarm_usec;
    setitimer(ITIMER_REAL, &timer, &old);
    left = static_cast<unsigned>(old.it_value.tv_sec) + (old.it_value.tv_usec != 0 ? 1U : 0U);
    while (alarm_waits_long && getitimer(ITIMER_REAL, &timer) == 0 && timerisset(&timer.it_value)) {
    }
  }
  alarm_calls.push_back({seconds, left});
  return left;
}

namespace vornfc {
namespace {

using std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using Failure = std::pair<int, std::string>;
using Outcomes = std::vector<std::pair<const VrnClientSocket*, int>>;

constexpr int Dropped = -2;
constexpr int TimedOut = -1;
constexpr bool Tcp = true;
constexpr bool Udp = false;

// The exception that `call` throws, as its code and message.
Failure failure_of(const Call& call) {
  try {
    call();
  } catch (const VrnException& e) {
    return {e.err(), e.what()};
  }
  return {0, "no VrnException"};
}

bool nonblocking(const VrnFile& file) {
  return (fcntl(file.fd, F_GETFL, 0) & O_NONBLOCK) != 0;
}

double seconds_since(steady_clock::time_point start) {
  return std::chrono::duration<double>(steady_clock::now() - start).count();
}

std::string id(const VrnSocket& socket) {
  return std::to_string(socket.fd) + "=" + socket.name();
}

std::string connect_line(const VrnSocket& socket, int result) {
  return "Socket " + std::to_string(socket.fd) + ": connect(" + socket.name() +
         ") = " + std::to_string(result);
}

int connect_to(const VrnSocket& client, const sockaddr_in& address) {
  return connect(client.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// A TCP port of the loopback address. Until it listens it refuses every connect.
class Port {
 public:
  Port() {
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(socket.fd, reinterpret_cast<const sockaddr*>(&address), size), 0);
    getsockname(socket.fd, reinterpret_cast<sockaddr*>(&address), &size);
  }
  ~Port() { drop_accepted(); }
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;

  int number() const { return ntohs(address.sin_port); }
  void listen(int backlog = 16) const { EXPECT_EQ(::listen(socket.fd, backlog), 0); }

  // Listens, but has no room: a connect hangs until make_room().
  void fill() {
    listen(0);
    for (;;) {
      auto client = std::make_unique<VrnSocket>(false, nullptr, -1, Tcp);
      client->setBlockingMode(false);
      connect_to(*client, address);
      pollfd entry{client->fd, POLLOUT, 0};
      if (poll(&entry, 1, 100) == 0) return;
      waiting.push_back(std::move(client));
    }
  }
  void make_room() {
    listen(16);
    while (!waiting.empty()) {
      accept();
      waiting.pop_back();
    }
  }

  void accept() {
    const int fd = ::accept(socket.fd, nullptr, nullptr);
    EXPECT_NE(fd, -1);
    accepted.push_back(fd);
  }
  void reset_accepted() {
    for (const int fd : accepted) {
      const linger at_once{1, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    drop_accepted();
  }

 private:
  void drop_accepted() {
    for (const int fd : accepted) close(fd);
    accepted.clear();
  }

  VrnSocket socket{false, nullptr, -1, Tcp};
  sockaddr_in address{};
  std::vector<std::unique_ptr<VrnSocket>> waiting;
  std::vector<int> accepted;
};

// A client socket of an application's own, which knows how many of its kind there are.
class TrackedSocket : public VrnClientSocket {
 public:
  explicit TrackedSocket(int port, bool isTcp = Tcp) : VrnClientSocket(nullptr, port, isTcp) {
    ++live;
  }
  ~TrackedSocket() override { --live; }

  static std::atomic<int> live;
};

std::atomic<int> TrackedSocket::live{0};

class RecordingClient : public VrnSocketsClient {
 public:
  void socketConnected(VrnClientSocket* socket, int result) override {
    outcomes.emplace_back(socket, result);
    threads.push_back(pthread_self());
    const auto call = std::exchange(on_connected, nullptr);
    if (call) call(socket);
  }

  Outcomes outcomes;
  std::vector<pthread_t> threads;
  std::function<void(VrnClientSocket*)> on_connected;  // for the next outcome
};

class ClientSocketTest : public testing::Test {
 protected:
  LogCapture log;
  Port port;
};

using ClientSocketDeathTest = ClientSocketTest;

static_assert(std::is_base_of_v<VrnSocket, VrnClientSocket>);
static_assert(!std::is_copy_constructible_v<VrnClientSocket>);
static_assert(!std::is_copy_assignable_v<VrnClientSocket>);
static_assert(!std::is_default_constructible_v<VrnClientSocket>);
static_assert(std::is_abstract_v<VrnSocketsClient>);
static_assert(std::has_virtual_destructor_v<VrnSocketsClient>);

// ---- construction ----

TEST_F(ClientSocketTest, HasTheConstructorsOfASocket) {
  EXPECT_STREQ(VrnClientSocket("10.0.0.7:25", Tcp).name(), "C/TCP-10.0.0.7:25");
  EXPECT_STREQ(VrnClientSocket("25", Udp).name(), "C/UDP-127.0.0.1:25");
  EXPECT_STREQ(VrnClientSocket("10.0.0.7", "25", Tcp).name(), "C/TCP-10.0.0.7:25");
  EXPECT_STREQ(VrnClientSocket(nullptr, "25", Udp).name(), "C/UDP-127.0.0.1:25");
  EXPECT_STREQ(VrnClientSocket(nullptr, Udp).name(), "C/UDP-unconnected");
  EXPECT_STREQ(VrnClientSocket(nullptr, -1, Tcp).name(), "C/TCP-unconnected");
  unsigned addr = inet_addr("127.0.0.2");
  const VrnClientSocket socket(&addr, 25, Tcp);
  EXPECT_STREQ(socket.name(), "C/TCP-127.0.0.2:25");
  EXPECT_TRUE(socket.tcp);
  EXPECT_FALSE(socket.server);
}

TEST_F(ClientSocketTest, FailedConstructionLeavesNoDescriptorOpen) {
  const std::vector<int> before = open_descriptors();
  EXPECT_EQ(failure_of([] { VrnClientSocket(nullptr, Tcp); }),
            Failure(3, "Socket: Null address spec for TCP Client"));
  EXPECT_EQ(failure_of([] { VrnClientSocket("127.0.0.1:0", Tcp); }),
            Failure(8, "Bad portspec (0)"));
  EXPECT_EQ(failure_of([] { VrnClientSocket("300.300.300.300", "25", Tcp); }),
            Failure(8, "Bad hostspec (300.300.300.300)"));
  sys::fail_next("socket", EMFILE);
  EXPECT_EQ(failure_of([] { VrnClientSocket("25", Tcp); }),
            Failure(2, "Failed to create C/TCP-127.0.0.1:25 socket"));
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ClientSocketTest, ClosesItsDescriptor) {
  const std::vector<int> before = open_descriptors();
  {
    VrnClientSocket socket(nullptr, port.number(), Tcp);
    EXPECT_NE(open_descriptors(), before);
    socket.connect(nullptr, 0);
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(ClientSocketTest, DestroyDeletesASocketThatNeverConnected) {
  (new TrackedSocket(port.number()))->destroy();
  EXPECT_EQ(TrackedSocket::live, 0);
}

// ---- connecting and waiting for it ----

TEST_F(ClientSocketTest, ConnectsToAListeningPort) {
  port.listen();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  errno = EPIPE;
  EXPECT_EQ(socket.connect(nullptr, 0), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(log.lines(), Lines{connect_line(socket, 0)});
  EXPECT_FALSE(nonblocking(socket));
  port.accept();
  EXPECT_EQ(send(socket.fd, "x", 1, MSG_NOSIGNAL), 1);
}

TEST_F(ClientSocketTest, ClosedPortRefuses) {
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  EXPECT_EQ(socket.connect(nullptr, 0), ECONNREFUSED);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(log.lines(), Lines{connect_line(socket, ECONNREFUSED)});
  EXPECT_FALSE(nonblocking(socket));
}

TEST_F(ClientSocketTest, RefusedConnectMayBeTriedAgain) {
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  EXPECT_EQ(socket.connect(nullptr, 0), ECONNREFUSED);
  port.listen();
  EXPECT_EQ(socket.connect(nullptr, 0), 0);
}

TEST_F(ClientSocketTest, SilentPeerTimesOutInTheSystem) {
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  const int retries = 1;
  setsockopt(socket.fd, IPPROTO_TCP, TCP_SYNCNT, &retries, sizeof retries);
  EXPECT_EQ(socket.connect(nullptr, 0), ETIMEDOUT);
}

TEST_F(ClientSocketTest, DatagramSocketConnectsAtOnce) {
  VrnClientSocket socket(nullptr, 9, Udp);
  EXPECT_EQ(socket.connect(nullptr, 0), 0);
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  EXPECT_EQ(getpeername(socket.fd, reinterpret_cast<sockaddr*>(&peer), &size), 0);
  EXPECT_EQ(peer.sin_port, htons(9));
}

TEST_F(ClientSocketTest, ConnectedSocketDoesNotConnectAgain) {
  RecordingClient client;
  VrnClientSocket socket(nullptr, 9, Udp);
  EXPECT_EQ(socket.connect(nullptr, 0), 0);
  const Failure duplicate(6, "Socket: Duplicate connection on C/UDP-127.0.0.1:9");
  EXPECT_EQ(failure_of([&] { socket.connect(nullptr, 0); }), duplicate);
  EXPECT_EQ(failure_of([&] { socket.connect(nullptr, 500); }), duplicate);
  EXPECT_EQ(failure_of([&] { socket.connect(&client, 0); }), duplicate);
  EXPECT_FALSE(nonblocking(socket));
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(ClientSocketTest, NeedsAnAddress) {
  RecordingClient client;
  VrnClientSocket socket(nullptr, Udp);
  const Failure expected(3, "Socket: Connect on " + id(socket));
  EXPECT_EQ(failure_of([&] { socket.connect(nullptr, 0); }), expected);
  EXPECT_EQ(failure_of([&] { socket.connect(&client, 0); }), expected);
  EXPECT_EQ(failure_of([&] { socket.connect(&client, 500); }), expected);
  EXPECT_EQ(sys::calls("connect"), 0);
}

TEST_F(ClientSocketTest, TimeoutIsForThoseWhoWait) {
  RecordingClient client;
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  EXPECT_EQ(failure_of([&] { socket.connect(&client, 1500); }),
            Failure(3, "ClientSocket: tmt=1500 for nonblocking " + id(socket)));
  EXPECT_EQ(failure_of([&] { socket.connect(&client, -1); }),
            Failure(3, "ClientSocket: tmt=-1 for nonblocking " + id(socket)));
  EXPECT_EQ(sys::calls("connect"), 0);
  EXPECT_TRUE(alarm_calls.empty());
  EXPECT_EQ(client.outcomes, Outcomes{});
  EXPECT_EQ(socket.connect(nullptr, 0), ECONNREFUSED);  // it is as good as new
}

TEST_F(ClientSocketTest, ModeThatCannotBeReadIsThrown) {
  RecordingClient client;
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  close(socket.fd);
  const Failure expected(
      2, "VrnFile: Failed to get flags for fd=" + std::to_string(socket.fd) + " (9)");
  EXPECT_EQ(failure_of([&] { socket.connect(nullptr, 0); }), expected);
  EXPECT_EQ(failure_of([&] { socket.connect(&client, 0); }), expected);
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(ClientSocketTest, InterruptedConnectIsRepeated) {
  VrnClientSocket socket(nullptr, 9, Udp);
  sys::fail_next("connect", EINTR, 3);
  EXPECT_EQ(socket.connect(nullptr, 0), 0);
  EXPECT_EQ(sys::calls("connect"), 4);
  EXPECT_EQ(log.lines(), Lines{connect_line(socket, 0)});
}

// What connect() may fail with, but for EINTR.
constexpr int connect_errors[] = {EACCES,     EPERM,        EADDRINUSE, EADDRNOTAVAIL, EAFNOSUPPORT,
                                  EAGAIN,     EALREADY,     EBADF,      ECONNREFUSED,  ECONNRESET,
                                  EFAULT,     EHOSTUNREACH, EINVAL,     EIO,           EISCONN,
                                  ENETDOWN,   ENETUNREACH,  ENOBUFS,    EOPNOTSUPP,    ENOTSOCK,
                                  EPROTOTYPE, ETIMEDOUT,    EPROTO,     ENOMEM};

TEST_F(ClientSocketTest, EveryFailureIsTheResult) {
  for (const int error : connect_errors) {
    for (const int timeout : {0, 500}) {
      VrnClientSocket socket(nullptr, 9, Udp);
      sys::fail_next("connect", error);
      EXPECT_EQ(socket.connect(nullptr, timeout), error);
      EXPECT_EQ(errno, error);
      EXPECT_EQ(log.lines().back(), connect_line(socket, error));
      EXPECT_EQ(socket.connect(nullptr, 0), 0) << "after " << error;
    }
  }
}

// Without a caller there is nobody to tell later.
TEST_F(ClientSocketTest, ConnectInProgressIsAFailureForThoseWhoWait) {
  VrnClientSocket socket(nullptr, 9, Udp);
  sys::fail_next("connect", EINPROGRESS);
  EXPECT_EQ(socket.connect(nullptr, 0), EINPROGRESS);
  sys::fail_next("connect", EINPROGRESS);
  EXPECT_EQ(socket.connect(nullptr, 500), EINPROGRESS);
}

TEST_F(ClientSocketTest, ModeFollowsTheLastConnect) {
  RecordingClient client;
  VrnClientSocket socket(nullptr, 9, Udp);
  sys::fail_next("connect", EAGAIN, 4);
  EXPECT_EQ(socket.connect(&client, 0), 1);
  EXPECT_TRUE(nonblocking(socket));
  EXPECT_EQ(socket.connect(nullptr, 0), EAGAIN);
  EXPECT_FALSE(nonblocking(socket));
  EXPECT_EQ(socket.connect(&client, 0), 1);
  EXPECT_TRUE(nonblocking(socket));
  EXPECT_EQ(socket.connect(nullptr, 500), EAGAIN);
  EXPECT_FALSE(nonblocking(socket));
}

// ---- the level of a line ----

struct App : VrnAppShell {
  App() : VrnAppShell(nullptr, "project", "", "description") {}
};

// Whether a logger of `level` writes a line that has `text`, when `call` is made.
bool logged(int level, const std::string& text, const Call& call) {
  char* lines = nullptr;
  std::size_t size = 0;
  std::FILE* const stream = open_memstream(&lines, &size);
  {
    App app;
    VrnLogSpec spec;
    spec.stream = stream;
    spec.level = level;
    app.appSetLogger(&spec);
    call();
  }
  std::fclose(stream);
  const bool result = std::string(lines).find(text) != std::string::npos;
  std::free(lines);
  return result;
}

TEST_F(ClientSocketTest, SuccessIsOfLevel5) {
  const auto succeed = [] { VrnClientSocket(nullptr, 9, Udp).connect(nullptr, 0); };
  EXPECT_TRUE(logged(5, "connect(C/UDP-127.0.0.1:9) = 0", succeed));
  EXPECT_FALSE(logged(4, "connect(", succeed));
}

TEST_F(ClientSocketTest, FailureIsOfLevel4) {
  const auto fail = [&] { VrnClientSocket(nullptr, port.number(), Tcp).connect(nullptr, 0); };
  EXPECT_TRUE(logged(4, ") = " + std::to_string(ECONNREFUSED), fail));
  EXPECT_FALSE(logged(3, "connect(", fail));
}

// ---- connecting with a time-out ----

void wake_up(int) {}

// A handler that tells whether the alarm is the caller's own again.
volatile sig_atomic_t callers_alarms = 0;
void on_alarm(int) {
  callers_alarms = callers_alarms + 1;
}

// Sends one signal to the thread that makes it, again and again.
class Storm {
 public:
  explicit Storm(int signo)
      : thread([this, signo, target = pthread_self()] {
          while (!stop) {
            pthread_kill(target, signo);
            std::this_thread::sleep_for(std::chrono::microseconds(500));
          }
        }) {}
  ~Storm() {
    stop = true;
    thread.join();
  }
  Storm(const Storm&) = delete;
  Storm& operator=(const Storm&) = delete;

 private:
  std::atomic<bool> stop{false};
  std::thread thread;
};

class TimedConnectTest : public ClientSocketTest {
 protected:
  TimedConnectTest() {
    struct sigaction action {};
    action.sa_handler = on_alarm;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGUSR2);
    sigaction(SIGALRM, &action, nullptr);

    action = {};
    action.sa_handler = wake_up;  // no SA_RESTART: a system call is interrupted
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
  }

  // After any outcome: the action, the mask and the alarm are what they were, and no alarm of the
  // library's has reached the caller.
  static void expect_alarm_given_back() {
    itimerval timer{};
    getitimer(ITIMER_REAL, &timer);
    EXPECT_FALSE(timerisset(&timer.it_interval));
    EXPECT_EQ(timerisset(&timer.it_value) != 0, alarm_calls.back().seconds != 0);
    struct sigaction action {};
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, &on_alarm);
    EXPECT_NE(action.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR2), 1);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGALRM), 0);
    EXPECT_EQ(callers_alarms, 0);
    raise(SIGALRM);
    EXPECT_EQ(callers_alarms, 1);
    callers_alarms = 0;
  }
};

TEST_F(TimedConnectTest, TimesOut) {
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  const auto start = steady_clock::now();
  EXPECT_EQ(socket.connect(nullptr, 500), TimedOut);
  EXPECT_GT(seconds_since(start), 0.9);
  EXPECT_LT(seconds_since(start), 10);
  EXPECT_EQ(log.lines(), Lines{});
  EXPECT_FALSE(nonblocking(socket));
  expect_alarm_given_back();
}

TEST_F(TimedConnectTest, ConnectsInTime) {
  port.listen();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  errno = EPIPE;
  EXPECT_EQ(socket.connect(nullptr, 60000), 0);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(log.lines(), Lines{connect_line(socket, 0)});
  EXPECT_FALSE(nonblocking(socket));
  expect_alarm_given_back();
  EXPECT_EQ(failure_of([&] { socket.connect(nullptr, 500); }).first, 6);
}

TEST_F(TimedConnectTest, IsRefusedInTime) {
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  EXPECT_EQ(socket.connect(nullptr, 60000), ECONNREFUSED);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_EQ(log.lines(), Lines{connect_line(socket, ECONNREFUSED)});
  EXPECT_FALSE(nonblocking(socket));
  expect_alarm_given_back();
}

TEST_F(TimedConnectTest, WholeSecondsCount) {
  const std::vector<std::pair<int, unsigned>> seconds = {
      {1, 1}, {500, 1}, {1000, 1}, {1999, 1}, {2000, 2}, {60999, 60}, {-1, 1}, {-5000, 1}};
  for (const auto& [timeout, expected] : seconds) {
    alarm_calls.clear();
    EXPECT_EQ(VrnClientSocket(nullptr, 9, Udp).connect(nullptr, timeout), 0);
    std::vector<unsigned> alarms(alarm_calls.size());
    std::transform(alarm_calls.begin(), alarm_calls.end(), alarms.begin(),
                   [](const AlarmCall& call) { return call.seconds; });
    EXPECT_EQ(alarms, (std::vector<unsigned>{0, expected, 0, 0})) << timeout;
  }
}

// With the seconds that it had left when the connect began.
TEST_F(TimedConnectTest, PendingAlarmIsSetAgainAfterEveryOutcome) {
  Port listening, full;
  listening.listen();
  full.fill();
  const std::vector<std::pair<int, int>> outcomes = {
      {listening.number(), 0}, {port.number(), ECONNREFUSED}, {full.number(), TimedOut}};
  for (const auto& [number, result] : outcomes) {
    VrnClientSocket socket(nullptr, number, Tcp);
    alarm(100);
    alarm_calls.clear();
    EXPECT_EQ(socket.connect(nullptr, 500), result);
    ASSERT_EQ(alarm_calls.size(), 4u);
    EXPECT_GT(alarm_calls.front().left, 80u);
    EXPECT_EQ(alarm_calls.back().seconds, alarm_calls.front().left) << result;
    expect_alarm_given_back();
    EXPECT_NE(alarm(0), 0u);
  }
}

TEST_F(TimedConnectTest, PendingAlarmReachesTheCaller) {
  alarm(1);
  EXPECT_EQ(VrnClientSocket(nullptr, 9, Udp).connect(nullptr, 5000), 0);
  EXPECT_TRUE(wait_for([] { return callers_alarms == 1; }));
}

TEST_F(TimedConnectTest, InterruptedConnectIsRepeated) {
  VrnClientSocket socket(nullptr, 9, Udp);
  sys::fail_next("connect", EINTR, 100);
  EXPECT_EQ(socket.connect(nullptr, 60000), 0);
  EXPECT_EQ(sys::calls("connect"), 101);
  expect_alarm_given_back();
}

TEST_F(TimedConnectTest, TimesOutInAStormOfSignals) {
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  {
    const Storm storm(SIGUSR1);
    const auto start = steady_clock::now();
    EXPECT_EQ(socket.connect(nullptr, 500), TimedOut);
    EXPECT_GT(seconds_since(start), 0.9);
  }
  EXPECT_GT(sys::calls("connect"), 10);
  expect_alarm_given_back();
}

TEST_F(TimedConnectTest, ConnectsInAStormOfSignals) {
  for (const int timeout : {0, 60000}) {
    Port slow;
    slow.fill();
    VrnClientSocket socket(nullptr, slow.number(), Tcp);
    const int before = sys::calls("connect");
    const Storm storm(SIGUSR1);
    std::thread server([&] {
      EXPECT_TRUE(wait_for([&] { return sys::calls("connect") > before + 10; }));
      slow.make_room();
    });
    EXPECT_EQ(socket.connect(nullptr, timeout), 0);
    server.join();
  }
}

// The alarm is the process's: the thread that gets it is not always the one that it is meant for.
TEST_F(TimedConnectTest, AlarmEndsTheConnectOfAnotherThread) {
  alarm_usec = 20000;
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  elsewhere([&] { EXPECT_EQ(socket.connect(nullptr, 500), TimedOut); });
  expect_alarm_given_back();
}

// As it may be in a process that is held up for the whole time.
TEST_F(TimedConnectTest, AlarmBeforeTheConnectStillEndsIt) {
  alarm_usec = 1;
  alarm_waits_long = true;
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  std::atomic<bool> ended{false};
  std::thread rescue([&, waiting = pthread_self()] {
    if (wait_for([&] { return ended.load(); }, std::chrono::seconds(3))) return;
    ADD_FAILURE() << "the connect goes on after its time";
    pthread_kill(waiting, SIGALRM);
  });
  EXPECT_EQ(socket.connect(nullptr, 500), TimedOut);
  ended = true;
  rescue.join();
}

TEST_F(TimedConnectTest, AttemptThatTimedOutMayBeWaitedForAgain) {
  alarm_usec = 20000;
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  EXPECT_EQ(socket.connect(nullptr, 500), TimedOut);
  EXPECT_EQ(socket.connect(nullptr, 500), TimedOut);
  port.make_room();
  EXPECT_EQ(socket.connect(nullptr, 0), 0);
}

// A connect that was made counts, wherever the alarm falls. An alarm that left a function on its
// way out would leave a lock behind: the socket's, that of the log or that of the heap.
class AlarmAnywhereTest : public TimedConnectTest {
 protected:
  void SetUp() override {
    TimedConnectTest::SetUp();
#ifdef VORNFC_TEST_TSAN
    GTEST_SKIP() << "the sanitizer keeps signals back until their action has changed";
#endif
  }

  void connect_again_and_again() {
    constexpr int connects = 3000;
    std::mt19937 random;
    Lines expected;
    for (int i = 0; i < connects; ++i) {
      VrnClientSocket socket(nullptr, 9, Udp);
      alarm_usec = 1 + static_cast<int>(random() % 80);
      ASSERT_EQ(socket.connect(nullptr, 500), 0);
      ASSERT_EQ(errno, 0);
      ASSERT_EQ(failure_of([&] { socket.connect(nullptr, 0); }).first, 6);
      expected.push_back(connect_line(socket, 0));
    }
    EXPECT_EQ(log.lines(), expected);
  }
};

TEST_F(AlarmAnywhereTest, Connects) {
  connect_again_and_again();
  expect_alarm_given_back();
}

TEST_F(AlarmAnywhereTest, AnotherThreadConnects) {
  elsewhere([&] { connect_again_and_again(); });
  expect_alarm_given_back();
}

// ---- connecting and being told ----

class AsyncConnectTest : public ClientSocketTest {
 protected:
  AsyncConnectTest() {
    loop.before_poll = [this] { ++turn; };
  }
  void TearDown() override { EXPECT_EQ(TrackedSocket::live, 0); }

  // Starts a connect whose outcome follows.
  void connect_later(VrnClientSocket* socket) { EXPECT_EQ(socket->connect(&client, 0), 0); }

  // Starts a connect that is done by the time the loop looks. The socket is for datagrams.
  void connect_soon(VrnClientSocket* socket) {
    sys::fail_next("connect", EINPROGRESS);
    EXPECT_EQ(socket->connect(&client, 0), 0);
  }

  // Starts a connect that the loop finds hung up, while there is no error on the socket. The socket
  // is for a stream.
  void connect_in_vain(VrnClientSocket* socket) { connect_soon(socket); }

  // Enough turns for anything that was asked for to be carried out.
  void let_it_turn() {
    for (int i = 0; i < 3; ++i) loop.on_dispatcher([] {});
  }

  void run_calls_and_turns() {
    let_it_turn();
    loop.run_calls();
  }

  // Runs until so many outcomes are told, and on for the turns in which another one would be.
  void run_until_told(size_t outcomes) {
    loop.when([this, outcomes] { return client.outcomes.size() == outcomes; }, [] {});
    run_calls_and_turns();
  }

  // Makes `call` in the turn in which the loop finds that `connect_soon` is done, before it acts on
  // what the socket asks for then.
  void when_its_stop_is_in_the_pipe(VrnClientSocket* socket, Call call) {
    sibling.on_ready = [this, call = std::move(call)](VrnFile*) {
      loop.mgr->stopAIO(&connection.file, &sibling);
      call();
    };
    connection.send("x");
    loop.on_dispatcher([this, socket] {
      connect_soon(socket);
      loop.mgr->startAIO(&connection.file, &sibling);
    });
    loop.when([this] { return sibling.ready == 1; }, [] {});
    let_it_turn();
  }

  Loop loop;
  int turn = 0;
  RecordingClient client;
  Connection connection;
  RecordingAIO sibling{RecordingAIO::Input, "sibling"};
};

using AsyncConnectDeathTest = AsyncConnectTest;

TEST_F(AsyncConnectTest, IsToldOfASuccess) {
  port.listen();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  int known = -1;
  loop.on_dispatcher([&] {
    known = socket.connect(&client, 0);
    EXPECT_EQ(static_cast<int>(client.outcomes.size()), known);
  });
  run_until_told(1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
  EXPECT_TRUE(nonblocking(socket));
  port.accept();
  EXPECT_EQ(send(socket.fd, "x", 1, MSG_NOSIGNAL), 1);
  EXPECT_TRUE(log.contains(connect_line(socket, known == 0 ? EINPROGRESS : 0)));
}

TEST_F(AsyncConnectTest, SuccessIsToldOnTheDispatcherThread) {
  VrnClientSocket socket(nullptr, 9, Udp);
  elsewhere([&] { connect_soon(&socket); });
  EXPECT_EQ(client.outcomes, Outcomes{});
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
  EXPECT_TRUE(pthread_equal(client.threads.at(0), pthread_self()));
}

TEST_F(AsyncConnectTest, RefusalIsADrop) {
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  loop.on_dispatcher([&] { connect_later(&socket); });
  run_until_told(1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, Dropped}}));
  EXPECT_TRUE(log.contains(connect_line(socket, EINPROGRESS)));
}

TEST_F(AsyncConnectTest, RefusalOfAConnectFromAnotherThread) {
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  elsewhere([&] { connect_later(&socket); });
  run_until_told(1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, Dropped}}));
}

TEST_F(AsyncConnectTest, ResetIsADrop) {
  port.listen();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  loop.on_dispatcher([&] {
    connect_later(&socket);
    port.accept();
    port.reset_accepted();
  });
  run_until_told(1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, Dropped}}));
}

TEST_F(AsyncConnectTest, PeerThatLeavesAtOnceIsASuccess) {
  port.listen();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  loop.on_dispatcher([&] {
    connect_later(&socket);
    port.accept();
    shutdown(socket.fd, SHUT_RD);
  });
  run_until_told(1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
}

TEST_F(AsyncConnectTest, SilentPeerIsADropWhenTheSystemGivesUp) {
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  const int retries = 1;
  setsockopt(socket.fd, IPPROTO_TCP, TCP_SYNCNT, &retries, sizeof retries);
  loop.on_dispatcher([&] { connect_later(&socket); });
  run_until_told(1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, Dropped}}));
}

TEST_F(AsyncConnectTest, SlowPeerIsASuccess) {
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  loop.on_dispatcher([&] { connect_later(&socket); });
  let_it_turn();
  loop.on_dispatcher([&] {
    EXPECT_EQ(client.outcomes, Outcomes{});
    port.make_room();
  });
  loop.run_until([&] { return !client.outcomes.empty(); });
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
}

TEST_F(AsyncConnectTest, DatagramSocketIsToldAtOnce) {
  VrnClientSocket socket(nullptr, 9, Udp);
  errno = EPIPE;
  client.on_connected = [](VrnClientSocket*) { EXPECT_EQ(errno, 0); };
  EXPECT_EQ(socket.connect(&client, 0), 1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
  EXPECT_TRUE(log.contains(connect_line(socket, 0)));
  EXPECT_TRUE(nonblocking(socket));
  EXPECT_EQ(failure_of([&] { socket.connect(&client, 0); }),
            Failure(6, "Socket: Duplicate connection on C/UDP-127.0.0.1:9"));
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes.size(), 1u);
}

TEST_F(AsyncConnectTest, EveryFailureIsToldAtOnce) {
  for (const int error : connect_errors) {
    VrnClientSocket socket(nullptr, port.number(), Tcp);
    client.outcomes.clear();
    client.on_connected = [&](VrnClientSocket*) { EXPECT_EQ(errno, error); };
    sys::fail_next("connect", error);
    EXPECT_EQ(socket.connect(&client, 0), 1);
    EXPECT_EQ(client.outcomes, (Outcomes{{&socket, error}}));
    EXPECT_EQ(log.lines().back(), connect_line(socket, error));
    EXPECT_TRUE(nonblocking(socket));
  }
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes.size(), 1u);
}

TEST_F(AsyncConnectTest, InterruptedConnectIsRepeated) {
  VrnClientSocket socket(nullptr, 9, Udp);
  sys::fail_next("connect", EINTR, 3);
  EXPECT_EQ(socket.connect(&client, 0), 1);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
}

TEST_F(AsyncConnectTest, ErrorThatCannotBeReadIsLogged) {
  VrnClientSocket socket(nullptr, 9, Udp);
  loop.on_dispatcher([&] {
    connect_soon(&socket);
    sys::fail_next("getsockopt", ENOTCONN);
  });
  loop.when([&] { return !client.outcomes.empty(); }, [] {});
  let_it_turn();
  EXPECT_TRUE(logged(
      1,
      "getsockopt(ERROR) failed on " + id(socket) + " - errno=" + std::to_string(ENOTCONN) + "\n",
      [&] { loop.run_calls(); }));
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, -1}}));
}

// A drop is told without a look at the socket's error.
TEST_F(AsyncConnectTest, ErrorOfADroppedSocketIsNotRead) {
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  loop.on_dispatcher([&] { connect_later(&socket); });
  loop.run_until([&] { return !client.outcomes.empty(); });
  EXPECT_EQ(sys::calls("getsockopt"), 0);
}

TEST_F(AsyncConnectTest, ConnectUnderWayExcludesAnother) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  const Failure duplicate(6, std::string("Socket: Duplicate connection on ") + socket->name());
  loop.on_dispatcher([&] {
    connect_later(socket);
    EXPECT_EQ(failure_of([&] { socket->connect(&client, 0); }), duplicate);
    EXPECT_EQ(failure_of([&] { socket->connect(nullptr, 0); }), duplicate);
    EXPECT_EQ(failure_of([&] { socket->connect(nullptr, 500); }), duplicate);
  });
  let_it_turn();
  loop.on_dispatcher([&] {
    elsewhere([&] { EXPECT_EQ(failure_of([&] { socket->connect(&client, 0); }), duplicate); });
    EXPECT_TRUE(nonblocking(*socket));
    socket->destroy();
  });
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, NeedsAnEventManager) {
  auto* const socket = new TrackedSocket(9, Udp);
  VrnAppShell::evtmgr = nullptr;
  sys::fail_next("connect", EINPROGRESS);
  EXPECT_EQ(failure_of([&] { socket->connect(&client, 0); }),
            Failure(3, "ClientSocket: No Event Manager for C/UDP-127.0.0.1:9"));
  EXPECT_EQ(client.outcomes, Outcomes{});
  EXPECT_EQ(socket->connect(&client, 0), 1);  // nothing of the first is left
  socket->destroy();
}

// Ours is one callback among an application's own.
TEST_F(AsyncConnectTest, TimerMayBeTheClient) {
  class ConnectingTimer : public CountingTimer, public RecordingClient {
   public:
    explicit ConnectingTimer(VrnClientSocket* socket)
        : CountingTimer("t", [this, socket] { socket->connect(this, 0); }) {}
  };
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  ConnectingTimer timer(&socket);
  loop.on_dispatcher([&] { timer.startTimer(0, 0, 0, 0); });
  loop.run_until([&] { return !timer.outcomes.empty(); });
  EXPECT_EQ(timer.outcomes, (Outcomes{{&socket, Dropped}}));
}

TEST_F(AsyncConnectTest, ApplicationMayBeTheClient) {
  class ConnectingApp : public App, public RecordingClient {};
  ConnectingApp app;
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  loop.on_dispatcher([&] { socket.connect(&app, 0); });
  loop.run_until([&] { return !app.outcomes.empty(); });
  EXPECT_EQ(app.outcomes, (Outcomes{{&socket, Dropped}}));
}

// ---- a watch that the event manager refuses ----

TEST_F(AsyncConnectTest, RefusedWatchIsADrop) {
  TrackedSocket* const socket = new TrackedSocket(9, Udp);
  VrnFile same;
  same.assign(socket->fd, "same", false);
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&same, &writer);
    connect_soon(socket);
  });
  loop.when([&] { return !client.outcomes.empty(); }, [] {});
  let_it_turn();
  loop.on_dispatcher([&] { loop.mgr->stopAIO(&same, &writer); });
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, (Outcomes{{socket, Dropped}}));
  EXPECT_GT(writer.ready, 0);
  EXPECT_TRUE(log.contains("AsyncRegistrar: submitted request threw [VrnException: Error=3"));
  socket->destroy();
}

TEST_F(AsyncConnectTest, SocketOfARefusedWatchMayBeDestroyed) {
  TrackedSocket* const socket = new TrackedSocket(9, Udp);
  VrnFile same;
  same.assign(socket->fd, "same", false);
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&same, &writer);
    connect_soon(socket);
    socket->destroy();
  });
  loop.when([] { return TrackedSocket::live == 0; }, [&] { loop.mgr->stopAIO(&same, &writer); });
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, WatchRefusedToAnotherThreadIsThrown) {
  TrackedSocket* const socket = new TrackedSocket(9, Udp);
  VrnFile same;
  same.assign(socket->fd, "same", false);
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  elsewhere([&] {
    loop.mgr->startAIO(&same, &writer);
    sys::fail_next("connect", EINPROGRESS);
    EXPECT_EQ(failure_of([&] { socket->connect(&client, 0); }).first, 3);
    loop.mgr->stopAIO(&same, &writer);
    socket->destroy();
  });
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

// ---- connecting again ----

TEST_F(AsyncConnectTest, SuccessThatCameLaterIsNotRemembered) {
  port.listen();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  client.on_connected = [&](VrnClientSocket* told) {
    EXPECT_EQ(told->connect(&client, 0), 1);  // the system says that it is connected
    EXPECT_EQ(failure_of([&] { told->connect(&client, 0); }).first, 6);
  };
  loop.on_dispatcher([&] { connect_later(&socket); });
  run_until_told(2);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}, {&socket, 0}}));
}

// The system tells the error of the first attempt at the next one.
TEST_F(AsyncConnectTest, RefusedConnectMayBeTriedAgainInTheCallback) {
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  client.on_connected = [&](VrnClientSocket* told) {
    port.listen();
    EXPECT_EQ(told->connect(nullptr, 0), ECONNREFUSED);
    connect_later(told);
  };
  loop.on_dispatcher([&] { connect_later(&socket); });
  run_until_told(2);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, Dropped}, {&socket, 0}}));
}

// The stop of the old watch is in the pipe when the drop is told. It must not end the new one.
TEST_F(AsyncConnectTest, OldStopDoesNotEndTheNextConnect) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  client.on_connected = [&](VrnClientSocket* told) { connect_later(told); };
  loop.on_dispatcher([&] { connect_in_vain(socket); });
  loop.when([&] { return !client.outcomes.empty(); }, [] {});
  let_it_turn();
  loop.on_dispatcher([&] {
    EXPECT_EQ(client.outcomes, (Outcomes{{socket, Dropped}}));
    port.make_room();
  });
  loop.when([&] { return client.outcomes.size() == 2; }, [&] { socket->destroy(); });
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, (Outcomes{{socket, Dropped}, {socket, 0}}));
}

TEST_F(AsyncConnectTest, OldStopDoesNotEndTheNextConnectOfAnotherThread) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  client.on_connected = [&](VrnClientSocket* told) { elsewhere([&] { connect_later(told); }); };
  loop.on_dispatcher([&] { connect_in_vain(socket); });
  loop.when([&] { return !client.outcomes.empty(); }, [] {});
  let_it_turn();
  loop.on_dispatcher([&] {
    EXPECT_EQ(client.outcomes, (Outcomes{{socket, Dropped}}));
    socket->destroy();
  });
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes.size(), 1u);
}

// Watched before the registrar's pipe, the socket is found ready once more before its stop is read:
// there are two stops. The second must not end the next watch, which reports a turn later.
TEST_F(AsyncConnectTest, SecondStopDoesNotEndTheNextConnect) {
  VrnClientSocket socket(nullptr, 9, Udp);
  std::vector<int> turns;
  elsewhere([&] { connect_soon(&socket); });
  client.on_connected = [&](VrnClientSocket* told) {
    turns.push_back(turn);
    client.on_connected = [&](VrnClientSocket*) { turns.push_back(turn); };
    elsewhere([&] { connect_soon(told); });
  };
  loop.run_until([&] { return client.outcomes.size() == 2; });
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}, {&socket, 0}}));
  EXPECT_LT(turns.at(0), turns.at(1));
}

// ---- a callback that throws ----

TEST_F(AsyncConnectTest, ThrowingCallbackIsLogged) {
  for (const bool kind : {Tcp, Udp}) {
    auto* const socket = new TrackedSocket(kind == Tcp ? port.number() : 9, kind);
    loop.on_dispatcher([=] {
      client.outcomes.clear();
      client.on_connected = [](VrnClientSocket*) { throw VrnException(77, "thrown"); };
      kind == Tcp ? connect_later(socket) : connect_soon(socket);
    });
    loop.when([=] { return !client.outcomes.empty(); }, [] {});
    let_it_turn();
    loop.on_dispatcher([=] {
      EXPECT_EQ(client.outcomes, (Outcomes{{socket, kind == Tcp ? Dropped : 0}}));
      EXPECT_NE(fcntl(socket->fd, F_GETFD), -1);
      socket->destroy();
    });
    let_it_turn();
  }
  loop.run_calls();
  EXPECT_TRUE(log.contains("EvtMgr: aioCancelled threw [VrnException: Error=77"));
}

TEST_F(AsyncConnectTest, CallbackMayDestroyTheSocketAndThrow) {
  client.on_connected = [](VrnClientSocket* told) {
    told->destroy();
    throw std::runtime_error("thrown");
  };
  loop.on_dispatcher([&] { connect_later(new TrackedSocket(port.number())); });
  run_until_told(1);
  EXPECT_EQ(client.outcomes.size(), 1u);
}

TEST_F(AsyncConnectTest, ExceptionOfACallbackAtOnceIsTheCallersOwn) {
  VrnClientSocket socket(nullptr, 9, Udp);
  client.on_connected = [](VrnClientSocket*) { throw VrnException(77, "thrown"); };
  EXPECT_EQ(failure_of([&] { socket.connect(&client, 0); }), Failure(77, "thrown"));
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
}

// ---- destroying the socket ----

TEST_F(AsyncConnectTest, DestroyedInTheCallbackAfterASuccess) {
  client.on_connected = [](VrnClientSocket* told) { told->destroy(); };
  loop.on_dispatcher([&] { connect_soon(new TrackedSocket(9, Udp)); });
  run_until_told(1);
}

TEST_F(AsyncConnectTest, DestroyedInTheCallbackAfterARefusal) {
  client.on_connected = [](VrnClientSocket* told) { told->destroy(); };
  loop.on_dispatcher([&] { connect_later(new TrackedSocket(port.number())); });
  run_until_told(1);
}

TEST_F(AsyncConnectTest, DeletedInTheCallback) {
  for (const bool kind : {Tcp, Udp}) {
    loop.on_dispatcher([&, kind] {
      client.on_connected = [](VrnClientSocket* told) { delete told; };
      auto* const socket = new TrackedSocket(kind == Tcp ? port.number() : 9, kind);
      kind == Tcp ? connect_later(socket) : connect_soon(socket);
    });
    loop.when([] { return TrackedSocket::live == 0; }, [] {});
    let_it_turn();
  }
  loop.run_calls();
  EXPECT_EQ(client.outcomes.size(), 2u);
}

TEST_F(AsyncConnectTest, DestroyedInTheCallbackAtOnce) {
  client.on_connected = [](VrnClientSocket* told) { told->destroy(); };
  EXPECT_EQ((new TrackedSocket(9, Udp))->connect(&client, 0), 1);
  client.on_connected = [](VrnClientSocket* told) { told->destroy(); };
  sys::fail_next("connect", ENETUNREACH);
  EXPECT_EQ((new TrackedSocket(9, Udp))->connect(&client, 0), 1);
  EXPECT_EQ(TrackedSocket::live, 0);
}

TEST_F(AsyncConnectTest, DestroyedInTheCallbackOfARefusedWatch) {
  TrackedSocket* const socket = new TrackedSocket(9, Udp);
  VrnFile same;
  same.assign(socket->fd, "same", false);
  RecordingAIO writer(RecordingAIO::Output, "writer", [](VrnFile*) {});
  client.on_connected = [&](VrnClientSocket* told) { told->destroy(); };
  loop.on_dispatcher([&] {
    loop.mgr->startAIO(&same, &writer);
    connect_soon(socket);
    loop.mgr->stopAIO(&same, &writer);
  });
  run_until_told(1);
}

TEST_F(AsyncConnectTest, DestroyedWhileItsStartIsInThePipe) {
  for (const bool here : {true, false}) {
    loop.on_dispatcher([&, here] {
      auto* const socket = new TrackedSocket(9, Udp);
      connect_soon(socket);
      here ? socket->destroy() : elsewhere([&] { socket->destroy(); });
      EXPECT_EQ(TrackedSocket::live, here ? 1 : 0);
    });
    let_it_turn();
    loop.on_dispatcher([&] { EXPECT_EQ(TrackedSocket::live, 0); });
  }
  loop.run_calls();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, DestroyedWhileItWaits) {
  port.fill();
  for (const bool here : {true, false}) {
    auto* const socket = new TrackedSocket(port.number());
    loop.on_dispatcher([=] { connect_later(socket); });
    let_it_turn();
    loop.on_dispatcher([=] { here ? socket->destroy() : elsewhere([&] { socket->destroy(); }); });
    let_it_turn();
  }
  loop.run_calls();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, DestroyedWhileItsStopIsInThePipe) {
  auto* const socket = new TrackedSocket(9, Udp);
  when_its_stop_is_in_the_pipe(socket, [&] {
    socket->destroy();
    EXPECT_EQ(TrackedSocket::live, 1);
  });
  loop.run_calls();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, DestroyedElsewhereWhileItsStopIsInThePipe) {
  auto* const socket = new TrackedSocket(9, Udp);
  when_its_stop_is_in_the_pipe(socket, [&] {
    elsewhere([&] { socket->destroy(); });
    EXPECT_EQ(TrackedSocket::live, 0);
  });
  loop.run_calls();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

// On another thread deleting is as good as destroy().
TEST_F(AsyncConnectTest, DeletedElsewhereWhileItWaits) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  loop.on_dispatcher([&] { connect_later(socket); });
  let_it_turn();
  loop.on_dispatcher([&] { elsewhere([&] { delete socket; }); });
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, AnotherThreadWaitsForTheCallbackBeforeItDestroys) {
  auto* const socket = new TrackedSocket(9, Udp);
  std::atomic<bool> in_callback{false}, left{false};
  std::thread other([&] {
    EXPECT_TRUE(wait_for([&] { return in_callback.load(); }));
    socket->destroy();
    EXPECT_TRUE(left);
  });
  client.on_connected = [&](VrnClientSocket* told) {
    in_callback = true;
    wait_for([&] { return TrackedSocket::live == 0; }, std::chrono::milliseconds(50));
    EXPECT_EQ(TrackedSocket::live, 1);
    EXPECT_STREQ(told->name(), "C/UDP-127.0.0.1:9");
    left = true;
  };
  loop.on_dispatcher([&] { connect_soon(socket); });
  loop.run_until([] { return TrackedSocket::live == 0; });
  other.join();
}

// A socket of each kind is connected and destroyed by another thread, at any time.
TEST_F(AsyncConnectTest, ConnectedAndDestroyedElsewhereAtAnyTime) {
#ifdef VORNFC_TEST_TSAN
  constexpr int sockets = 200;
#else
  constexpr int sockets = 1000;
#endif
  class CountingClient : public VrnSocketsClient {
   public:
    void socketConnected(VrnClientSocket* told, int) override {
      last = told;
      ++count;
    }
    std::atomic<const VrnClientSocket*> last{nullptr};
    std::atomic<int> count{0};
  };
  CountingClient counting;
  Port listening;
  listening.listen(4096);
  std::atomic<bool> done{false};
  std::thread other([&] {
    std::mt19937 random;
    const int numbers[] = {port.number(), listening.number()};
    for (int i = 0; i < sockets; ++i) {
      counting.count = 0;
      auto* const socket = new TrackedSocket(numbers[i % 2]);
      socket->connect(&counting, 0);
      const auto pause = std::chrono::microseconds(random() % 200);
      wait_for([&] { return counting.count > 0; }, std::chrono::milliseconds(i % 3 == 0 ? 100 : 0));
      std::this_thread::sleep_for(pause);
      socket->destroy();
      ASSERT_LE(counting.count, 1);
      counting.count = 100;
      if (counting.count != 100) ADD_FAILURE() << "told after the end";
    }
    done = true;
  });
  loop.run_until([&] { return done.load(); });
  other.join();
  EXPECT_EQ(counting.count, 100);
}

// ---- the end of the loop ----

TEST_F(AsyncConnectTest, DestroyedRightBeforeTheLoopIsStopped) {
  port.fill();
  auto* const waiting = new TrackedSocket(port.number());
  loop.on_dispatcher([&] { connect_later(waiting); });
  let_it_turn();
  loop.on_dispatcher([&] {
    auto* const starting = new TrackedSocket(port.number());
    connect_later(starting);
    waiting->destroy();
    starting->destroy();
    loop.mgr->stopDispatcher();
  });
  loop.run();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, DestroyedRightAfterTheLoopIsStopped) {
  port.fill();
  auto* const waiting = new TrackedSocket(port.number());
  loop.on_dispatcher([&] { connect_later(waiting); });
  let_it_turn();
  loop.on_dispatcher([&] {
    auto* const starting = new TrackedSocket(port.number());
    connect_later(starting);
    loop.mgr->stopDispatcher();
    waiting->destroy();
    starting->destroy();
  });
  loop.run();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

// The loop ends over requests that it has not read.
TEST_F(AsyncConnectTest, DestroyedWhileAnotherThreadEndsTheLoop) {
  port.fill();
  auto* const waiting = new TrackedSocket(port.number());
  loop.on_dispatcher([&] { connect_later(waiting); });
  let_it_turn();
  loop.on_dispatcher([&] {
    auto* const starting = new TrackedSocket(port.number());
    connect_later(starting);
    waiting->destroy();
    starting->destroy();
    elsewhere([&] { loop.mgr->stopDispatcher(); });
  });
  loop.run();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

// The loop will not watch it any more: it is dropped.
TEST_F(AsyncConnectTest, ConnectThatTheLoopDidNotReadIsADrop) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  client.on_connected = [](VrnClientSocket* told) { told->destroy(); };
  loop.on_dispatcher([&] {
    connect_later(socket);
    elsewhere([&] { loop.mgr->stopDispatcher(); });
  });
  loop.run();
  EXPECT_EQ(client.outcomes, (Outcomes{{socket, Dropped}}));
}

TEST_F(AsyncConnectTest, DestroyedAfterTheLoop) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  auto* const deleted = new TrackedSocket(port.number());
  loop.on_dispatcher([&] {
    connect_later(socket);
    connect_later(deleted);
  });
  run_calls_and_turns();
  EXPECT_EQ(TrackedSocket::live, 2);
  socket->destroy();
  delete deleted;
  EXPECT_EQ(TrackedSocket::live, 0);
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, DestroyedAfterTheEventManager) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  auto* const deleted = new TrackedSocket(port.number());
  loop.on_dispatcher([&] {
    connect_later(socket);
    connect_later(deleted);
  });
  run_calls_and_turns();
  VrnEvtMgr::destroy();
  socket->destroy();
  delete deleted;
  EXPECT_EQ(TrackedSocket::live, 0);
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(AsyncConnectTest, DestroyedBeforeTheLoopBegins) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  connect_later(socket);
  socket->destroy();
  run_calls_and_turns();
  EXPECT_EQ(client.outcomes, Outcomes{});
}

// The last turn of the loop: the registrar's pipe is closed, other callbacks are still made. Nobody
// could watch a socket any more.
class LastTurnTest : public AsyncConnectTest {
 protected:
  // Runs the loop to its end, with `call` in a callback of its last turn.
  void run_with_last_call(Call call) {
    sibling.on_ready = [this, call = std::move(call)](VrnFile*) {
      loop.mgr->stopDispatcher();
      sibling.on_ready = [call](VrnFile*) { call(); };
    };
    connection.send("x");
    loop.on_dispatcher([this] {
      loop.mgr->startAIO(&connection.file, &sibling);
      // Takes the place of the registrar's entry, which else the sibling would take.
      loop.mgr->startAIO(&idle_connection.file, &idle);
    });
    loop.run();
    EXPECT_EQ(sibling.ready, 2);
  }

  Connection idle_connection;
  RecordingAIO idle{RecordingAIO::Input, "idle"};
};

TEST_F(LastTurnTest, WaitingSocketIsDestroyed) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  elsewhere([&] { connect_later(socket); });
  run_with_last_call([&] { socket->destroy(); });
  EXPECT_EQ(TrackedSocket::live, 0);
  EXPECT_EQ(client.outcomes, Outcomes{});
}

TEST_F(LastTurnTest, ConnectIsADrop) {
  port.fill();
  VrnClientSocket socket(nullptr, port.number(), Tcp);
  run_with_last_call([&] { socket.connect(&client, 0); });
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, Dropped}}));
}

TEST_F(LastTurnTest, ConnectingSocketIsDestroyed) {
  port.fill();
  run_with_last_call([&] {
    auto* const socket = new TrackedSocket(port.number());
    socket->connect(&client, 0);
    socket->destroy();
  });
  EXPECT_EQ(TrackedSocket::live, 0);
}

TEST_F(AsyncConnectTest, ConnectAfterTheLoopIsADrop) {
  loop.run_calls();
  VrnClientSocket here(nullptr, 9, Udp), there(nullptr, 9, Udp);
  sys::fail_next("connect", EINPROGRESS, 2);
  here.connect(&client, 0);
  EXPECT_EQ(client.outcomes, (Outcomes{{&here, Dropped}}));
  elsewhere([&] { there.connect(&client, 0); });
  EXPECT_EQ(client.outcomes, (Outcomes{{&here, Dropped}, {&there, Dropped}}));
}

TEST_F(AsyncConnectTest, DestroyedForALoopThatNeverRuns) {
  port.fill();
  auto* const socket = new TrackedSocket(port.number());
  connect_later(socket);
  socket->destroy();
  VrnEvtMgr::destroy();
  EXPECT_EQ(TrackedSocket::live, 0);
  EXPECT_EQ(client.outcomes, Outcomes{});
}

// ---- another event manager ----

class AnsweredConnectTest : public testing::Test {
 protected:
  AnsweredConnectTest() {
    manager.on_start = [this](VrnFile*, VrnAIO* aio) {
      watcher = aio;
      return true;
    };
  }

  void connect() {
    sys::fail_next("connect", EINPROGRESS);
    EXPECT_EQ(socket.connect(&client, 0), 0);
    EXPECT_EQ(client.outcomes, Outcomes{});
  }

  LogCapture log;
  StandInManager manager;
  RecordingClient client;
  VrnAIO* watcher = nullptr;
  VrnClientSocket socket{nullptr, 9, Udp};
};

using AnsweredConnectDeathTest = AnsweredConnectTest;

TEST_F(AnsweredConnectTest, StopThatIsDoneAtOnceIsNotWaitedFor) {
  connect();
  watcher->aioReady(&socket);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
  watcher->aioReady(&socket);
  watcher->aioCancelled(&socket, true, false);
  EXPECT_EQ(client.outcomes.size(), 1u);
}

TEST_F(AnsweredConnectTest, ManagerThatIsGoneNeedsNoStop) {
  connect();
  VrnAppShell::evtmgr = nullptr;
  manager.on_stop = [](VrnFile*, VrnAIO*) {
    ADD_FAILURE() << "the manager is gone";
    return false;
  };
  watcher->aioReady(&socket);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, 0}}));
}

TEST_F(AnsweredConnectTest, LostWatchIsADrop) {
  connect();
  watcher->aioCancelled(&socket, true, false);
  EXPECT_EQ(client.outcomes, (Outcomes{{&socket, Dropped}}));
}

TEST_F(AnsweredConnectDeathTest, StopThatThrowsInTheDestructorEndsTheProcess) {
  manager.on_stop = [](VrnFile*, VrnAIO*) -> bool { throw VrnException(3, "refused"); };
  const auto connect_and_delete = [&] {
    VrnClientSocket doomed(nullptr, 9, Udp);
    sys::fail_next("connect", EINPROGRESS);
    doomed.connect(&client, 0);
  };
  EXPECT_EXIT(connect_and_delete(), testing::ExitedWithCode(1),
              "ClientSocket: Failed to stop C/UDP-127.0.0.1:9 "
              "\\[VrnException: Error=3 .* - refused\\]\n"
              ".*ClientSocket destroyed while active - ABORT APP !\n");
}

// ---- deleting a socket that still waits ----

TEST_F(AsyncConnectDeathTest, DeletedWhileItWaits) {
  const auto connect_and_delete = [&] {
    App app;
    VrnLogSpec spec;
    spec.stream = stderr;
    spec.level = 1;
    app.appSetLogger(&spec);
    VrnClientSocket socket(nullptr, 9, Udp);
    connect_soon(&socket);
  };
  EXPECT_EXIT(connect_and_delete(), testing::ExitedWithCode(1),
              "ClientSocket destroyed while active - ABORT APP !\n");
}

}  // namespace
}  // namespace vornfc
