#pragma once
// What a program that is started says to its standard output: the time, and its resident KiB.

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>

inline void started() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::string statm(200, '\0');
  const int fd = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  if (read(fd, statm.data(), statm.size() - 1) <= 0) std::abort();
  close(fd);
  const long pages = std::atol(statm.c_str() + statm.find(' '));
  const std::string text = std::to_string(now.tv_sec * 1000000000L + now.tv_nsec) + " " +
                           std::to_string(pages * sysconf(_SC_PAGESIZE) / 1024) + "\n";
  if (write(STDOUT_FILENO, text.data(), text.size()) == -1) std::abort();
}
