// Sends a stream of its own through each of many connections to an echo server at once, and
// compares every byte that comes back:
//
//   echo_load PORT CONNECTIONS MEBIBYTES-IN-ALL
//
// With -1 mebibytes it says nothing and succeeds when the server closes every connection.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr size_t Chunk = 65536;

struct Connection {
  int fd = -1;
  size_t id = 0;
  size_t sent = 0;
  size_t received = 0;
};

// The byte of a connection's stream at an offset; streams differ from each other.
char byte_at(size_t id, size_t offset) {
  const std::uint64_t mixed = (offset / 8 + id * 1000003) * 0x9e3779b97f4a7c15u;
  return static_cast<char>(mixed >> (8 * (offset % 8)));
}

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(1);
}

int connect_to(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd == -1) die("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) {
    die("connect");
  }
  fcntl(fd, F_SETFL, O_NONBLOCK);
  return fd;
}

void send_some(Connection& c, size_t total) {
  static std::array<char, Chunk> buffer;
  const size_t size = std::min(Chunk, total - c.sent);
  for (size_t i = 0; i < size; ++i) buffer[i] = byte_at(c.id, c.sent + i);
  const ssize_t n = write(c.fd, buffer.data(), size);
  if (n == -1 && errno != EAGAIN) die("write");
  if (n > 0) c.sent += static_cast<size_t>(n);
}

void receive_some(Connection& c) {
  static std::array<char, Chunk> buffer;
  const ssize_t n = read(c.fd, buffer.data(), buffer.size());
  if (n == -1 && errno == EAGAIN) return;
  if (n == -1) die("read");
  if (n == 0) {
    std::fprintf(stderr, "connection %zu closed after %zu bytes\n", c.id, c.received);
    std::exit(1);
  }
  for (size_t i = 0; i < static_cast<size_t>(n); ++i, ++c.received) {
    if (buffer[i] == byte_at(c.id, c.received)) continue;
    std::fprintf(stderr, "connection %zu: wrong byte at %zu\n", c.id, c.received);
    std::exit(1);
  }
}

// Waits, for 30 s at most, until the server has closed the connection.
bool closed_by_server(const Connection& c) {
  pollfd entry{c.fd, POLLIN, 0};
  char byte;
  return poll(&entry, 1, 30000) == 1 && read(c.fd, &byte, 1) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const int port = std::atoi(argv[1]);
  const auto count = static_cast<size_t>(std::atoi(argv[2]));
  const int mebibytes = std::atoi(argv[3]);

  std::vector<Connection> connections(count);
  for (size_t i = 0; i < count; ++i) {
    connections[i].id = i;
    connections[i].fd = connect_to(port);
  }
  if (mebibytes == -1) {
    return std::all_of(connections.begin(), connections.end(), closed_by_server) ? 0 : 1;
  }
  const size_t total = static_cast<size_t>(mebibytes) * 1048576 / count;
  size_t open = count;
  while (open > 0) {
    std::vector<pollfd> entries;
    for (const Connection& c : connections) {
      const bool more = c.sent < total;
      entries.push_back({c.fd, static_cast<short>(more ? POLLIN | POLLOUT : POLLIN), 0});
    }
    const int ready = poll(entries.data(), entries.size(), 30000);
    if (ready == -1) die("poll");
    if (ready == 0) {
      std::fprintf(stderr, "nothing came back for 30 s\n");
      return 1;
    }
    for (size_t i = 0; i < count; ++i) {
      Connection& c = connections[i];
      if (entries[i].revents & POLLOUT) send_some(c, total);
      if (entries[i].revents & ~POLLOUT) receive_some(c);
      if (c.fd != -1 && c.received == total) {
        close(c.fd);
        c.fd = -1;
        --open;
      }
    }
  }
  std::printf("%zu connections, %zu bytes each, all came back\n", count, total);
  return 0;
}
