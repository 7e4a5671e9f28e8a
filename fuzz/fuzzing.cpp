#include "fuzzing.h"

#include "vornfc/appshell.h"
#include "vornfc/log.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Standard error may lead elsewhere in the middle of a run.
std::FILE* const report = fdopen(dup(STDERR_FILENO), "w");

}  // namespace

unsigned Input::byte() {
  if (left == 0) return 0;
  --left;
  return *next++;
}

int Input::number() {
  const unsigned first = byte();
  if (first < 192) return static_cast<int>(first);
  std::uint32_t value = 0;
  for (unsigned i = 0; i < first % 4 + 1; ++i) value = value << 8 | byte();
  return static_cast<int>(first < 224 ? value : 0 - value);
}

std::string Input::line() {
  const void* const found = left > 0 ? std::memchr(next, '\n', left) : nullptr;
  const std::size_t length =
      found ? static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - next) : left;
  std::string text(reinterpret_cast<const char*>(next), length);
  next += length;
  left -= length;
  byte();
  text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
  return text;
}

std::string Input::rest() {
  std::string text(reinterpret_cast<const char*>(next), left);
  left = 0;
  return text;
}

void require(bool holds, const char* fmt, ...) {
  if (holds) return;
  va_list args;
  va_start(args, fmt);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it has been started
  std::vfprintf(report, fmt, args);
  va_end(args);
  std::fputs("\n", report);
  std::fflush(report);
  std::abort();
}

MemoryFile::MemoryFile(const std::string& content)
    : fd(memfd_create("fuzz", MFD_CLOEXEC)), path("/proc/self/fd/" + std::to_string(fd)) {
  require(fd != -1, "no file in memory");
  write(content);
}

MemoryFile::~MemoryFile() {
  close(fd);
}

std::string MemoryFile::read() const {
  std::string content;
  char chunk[8192];
  ssize_t count;
  while ((count = pread(fd, chunk, sizeof chunk, static_cast<off_t>(content.size()))) > 0) {
    content.append(chunk, static_cast<std::size_t>(count));
  }
  return content;
}

void MemoryFile::write(const std::string& content) const {
  const bool written = ftruncate(fd, 0) == 0 && pwrite(fd, content.data(), content.size(), 0) ==
                                                    static_cast<ssize_t>(content.size());
  require(written, "a file in memory cannot be written");
}

void drop_log_lines() {
  static vornfc::VrnAppShell shell(nullptr, "fuzz", nullptr, nullptr, false);
  vornfc::VrnLogSpec spec;
  spec.logger = new vornfc::VrnLog(static_cast<std::FILE*>(nullptr), 5, "", 1);
  shell.appSetLogger(&spec);
}
