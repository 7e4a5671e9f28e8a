#pragma once
#include "contender.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

// Sends back what each caller of the listening socket sends, by one read() and one write() each
// time a caller is ready, until the process is ended. What a caller's socket does not take at once
// may be waited for: callers read what they are sent. The end of a caller closes its connection.
using Serve = void (*)(int listening);

// The next caller, in non-blocking mode; -1: none.
inline int next_caller(int listening) {
  const int fd = accept4(listening, nullptr, nullptr, SOCK_NONBLOCK);
  if (fd == -1) return -1;
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

// What each contender does with a caller that is ready. False: it has left.
inline bool echo(int fd) {
  static char buffer[65536];
  const ssize_t size = read(fd, buffer, sizeof buffer);
  if (size == -1) return errno == EAGAIN || errno == EINTR;
  for (ssize_t sent = 0; sent < size;) {
    const ssize_t count = write(fd, buffer + sent, static_cast<size_t>(size - sent));
    if (count > 0) sent += count;
    if (count == -1 && errno != EAGAIN && errno != EINTR) return false;
  }
  return size > 0;
}
