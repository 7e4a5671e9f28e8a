#include "daemon.h"

#include "wait_for.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <utility>
#include <vector>

namespace {

std::filesystem::path new_directory() {
  char name[] = "/tmp/vornfc_daemon.XXXXXX";
  EXPECT_NE(mkdtemp(name), nullptr);
  return name;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

Daemon::Daemon(const std::string& path) : dir(new_directory()), program(path) {}

Daemon::~Daemon() {
  if (pid != -1) {
    send(SIGTERM);
    EXPECT_TRUE(ends()) << log();
    kill(pid, SIGKILL);
  }
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("sanitizer", 0) != 0) continue;
    ADD_FAILURE() << read(entry.path());
  }
  std::filesystem::remove_all(dir);
}

void Daemon::configure(const std::string& text, const std::string& level) const {
  const std::filesystem::path fresh = dir / "conf.new";
  std::ofstream(fresh) << text << "[log]\nFILENAME=" << (dir / "log").string()
                       << "\nLEVEL=" << level << "\n";
  std::filesystem::rename(fresh, dir / "conf");
}

void Daemon::start(rlim_t descriptors) {
  const std::string conf = dir / "conf";
  const std::string sanitizer = "log_path=" + (dir / "sanitizer").string();
  const pid_t child = fork();
  if (child == 0) {
    if (descriptors != 0) {
      const rlimit limit{descriptors, descriptors};
      setrlimit(RLIMIT_NOFILE, &limit);
    }
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
      setenv(name, sanitizer.c_str(), 1);
    }
    execl(program.c_str(), program.c_str(), "-C", conf.c_str(), "-L", "log", "-D", dir.c_str(),
          nullptr);
    _exit(127);
  }
  ASSERT_NE(child, -1);
  int status = -1;
  waitpid(child, &status, 0);  // the daemon is its grandchild
  ASSERT_EQ(status, 0);

  // Each record has NAME-PID-THREAD in it.
  const std::string tag = std::filesystem::path(program).filename().string() + "-";
  ASSERT_TRUE(logs(tag));
  const std::string text = log();
  pid = std::stoi(text.substr(text.find(tag) + tag.size()));
}

void Daemon::reload() const {
  send(SIGUSR1);
}

void Daemon::send(int signo) const {
  const bool sent = kill(pid, signo) == 0;
  EXPECT_TRUE(sent || errno == ESRCH);
}

bool Daemon::logs(const std::string& text, int times) const {
  return wait_for(
      [&] {
        const std::string all = log();
        int found = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
          ++found;
        }
        return found >= times;
      },
      std::chrono::seconds(20));
}

std::string Daemon::log() const {
  return read(dir / "log");
}

// Ended, though its parent by now may not have taken notice yet.
bool Daemon::ends() const {
  const std::string process = "/proc/" + std::to_string(pid);
  return wait_for(
      [&] {
        const std::string status = read(process + "/stat");
        return status.find(") Z ") != std::string::npos || kill(pid, 0) == -1;
      },
      std::chrono::seconds(20));
}

bool Daemon::has_descriptors(int count) const {
  return wait_for([&] { return descriptors() == count; }, std::chrono::seconds(20));
}

int Daemon::descriptors() const {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

std::string Daemon::read(const std::filesystem::path& file) const {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// ---- sockets ----

Socket::Socket(Socket&& other) noexcept : fd(std::exchange(other.fd, -1)) {}

Socket& Socket::operator=(Socket&& other) noexcept {
  std::swap(fd, other.fd);
  return *this;
}

Socket Socket::bound() {
  Socket result(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(result.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = loopback(0);
  EXPECT_EQ(bind(result.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return result;
}

Socket Socket::listening(int backlog) {
  Socket result = bound();
  EXPECT_EQ(listen(result.fd, backlog), 0);
  const timeval limit{20, 0};
  setsockopt(result.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  return result;
}

Socket Socket::connected(int port, int receive_buffer) {
  Socket result(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval limit{20, 0};
  setsockopt(result.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(result.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  if (receive_buffer != 0) {
    setsockopt(result.fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  const sockaddr_in address = loopback(port);
  if (connect(result.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    result.close();
  }
  return result;
}

Socket Socket::accept() const {
  Socket result(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_NE(result.fd, -1);
  const timeval limit{20, 0};
  setsockopt(result.fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  setsockopt(result.fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  return result;
}

int Socket::port() const {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  return ntohs(address.sin_port);
}

bool Socket::send(const std::string& text) const {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t count = ::send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

void Socket::finish() const {
  shutdown(fd, SHUT_WR);
}

void Socket::reset() {
  const linger at_once{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  close();
}

void Socket::close() {
  if (fd != -1) ::close(fd);
  fd = -1;
}

std::string Socket::receive(size_t length) const {
  std::string text(length, '\0');
  size_t received = 0;
  while (received < length) {
    const ssize_t count = recv(fd, text.data() + received, length - received, 0);
    if (count <= 0) break;
    received += static_cast<size_t>(count);
  }
  text.resize(received);
  return text;
}

std::string Socket::receive_all() const {
  std::string text;
  for (std::string part = receive(65536); !part.empty(); part = receive(65536)) text += part;
  return text;
}

int free_port() {
  static std::vector<Socket> reserved;  // the system gives them to nobody who does not ask for them
  reserved.push_back(Socket::bound());
  return reserved.back().port();
}
