#pragma once
// A daemon of the examples, seen from outside: by its log, its descriptors, and its sockets.

#include <sys/resource.h>
#include <sys/types.h>

#include <filesystem>
#include <string>

// The process, in a directory of its own. Its configuration file has a group "log" added, so that
// it logs to a file there.
//
//   Daemon daemon(RELAYD);
//   daemon.configure("[rules]\n");
//   daemon.start();
//   EXPECT_TRUE(daemon.logs("is relayed to"));
class Daemon {
 public:
  explicit Daemon(const std::string& path);
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon();  // what a sanitizer had to say fails the test

  void configure(const std::string& text, const std::string& level = "INFO") const;
  void start(rlim_t descriptors = 0);  // 0: as many as this process may have
  void reload() const;                 // makes it read its configuration again
  void send(int signo) const;

  bool logs(const std::string& text, int times = 1) const;  // waits for it
  std::string log() const;
  bool ends() const;                      // waits for it
  bool has_descriptors(int count) const;  // waits for it
  int descriptors() const;

  const std::filesystem::path dir;

 private:
  std::string read(const std::filesystem::path& file) const;

  const std::string program;
  pid_t pid = -1;
};

// Sockets on 127.0.0.1, blocking, with a limit of 20 s on each receive and send.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int given) : fd(given) {}
  Socket(Socket&& other) noexcept;
  Socket& operator=(Socket&& other) noexcept;
  ~Socket() { close(); }

  static Socket bound();  // to a port that nothing serves
  static Socket listening(int backlog = 128);
  static Socket connected(int port, int receive_buffer = 0);

  Socket accept() const;
  int port() const;
  bool send(const std::string& text) const;
  void finish() const;  // no more is sent
  void reset();         // closes the connection without a word
  void close();
  std::string receive(size_t length) const;  // that many bytes, fewer at the end or after 20 s
  std::string receive_all() const;           // until the end
  bool at_end() const { return receive(1).empty(); }

  int fd = -1;
};

// A port of 127.0.0.1 that nothing serves, another one each time. It can be served with
// SO_REUSEADDR.
int free_port();
