#include "log_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <system_error>

namespace {

int checked(int result, const char* what) {
  if (result == -1) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

int open_nameless_file() {
  char path[] = "/tmp/vornfc_log_XXXXXX";
  const int fd = checked(mkostemp(path, O_CLOEXEC | O_APPEND), "mkostemp");
  checked(unlink(path), "unlink");
  return fd;
}

}  // namespace

LogCapture::LogCapture()
    : file(open_nameless_file()), saved_stderr(checked(fcntl(2, F_DUPFD_CLOEXEC, 3), "fcntl")) {
  checked(setenv("VORNTRC_APPTAG", "y", 1), "setenv");
  checked(dup2(file, 2), "dup2");
}

LogCapture::~LogCapture() {
  dup2(saved_stderr, 2);
  close(saved_stderr);
  std::fputs(raw().c_str(), stderr);
  close(file);
}

std::string LogCapture::raw() const {
  std::string text;
  char chunk[4096];
  for (;;) {
    const ssize_t count = pread(file, chunk, sizeof chunk, static_cast<off_t>(text.size()));
    checked(static_cast<int>(count), "pread");
    if (count == 0) return text;
    text.append(chunk, static_cast<std::size_t>(count));
  }
}

std::vector<std::string> LogCapture::lines() const {
  const std::string prefix = "*** PID=" + std::to_string(getpid()) + ": ";
  std::vector<std::string> result;
  std::istringstream text(raw());
  for (std::string line; std::getline(text, line);) {
    result.push_back(line.compare(0, prefix.size(), prefix) == 0 ? line.substr(prefix.size())
                                                                 : line);
  }
  return result;
}

bool LogCapture::contains(const std::string& text) const {
  const std::vector<std::string> all = lines();
  return std::any_of(all.begin(), all.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}
