// The limit: the line is there.
#include "log.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

int fd = -1;
const std::string line =
    "20261115-13:05:09.042 INFO log-12345-140737353914048 "
    "Request 50 of the session was answered after 93 us\n";

void open(const std::string& path) {
  fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
}

void records(int count) {
  for (int i = 0; i < count; ++i) {
    if (write(fd, line.data(), line.size()) == -1) std::abort();
  }
}

volatile int level = 3;

void filtered(int count) {
  for (int i = 0; i < count; ++i) {
    next_record();
    if (4 <= level) records(1);
  }
}

const compare::Enter<Log> entry("write", {open, records, filtered});

}  // namespace
