#include "vornfc/utils.h"

#include "vornfc/appshell.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"

#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vornfc {

namespace {

// Whether levels 3 and above reach standard error: -1 undecided, then 0 or 1 for good. Threads that
// meet here undecided compute the same value.
std::atomic<int> show_prelims{-1};

char localbuf[31];  // num2buf() without a buffer; shared by all callers

// The switch goes by the variable of the application tag, not by that of CFG_PRELIMS.
bool prelims_shown() {
  int shown = show_prelims;
  if (shown == -1) {
    const char* value = std::getenv(VrnLog::envname(VrnLog::CFG_APPTAG).c_str());
    shown = value && strcasecmp(value, "y") == 0 ? 1 : 0;
    show_prelims = shown;
  }
  return shown == 1;
}

__attribute__((format(printf, 3, 0))) void log_to_stderr(va_list ap, int level, const char* fmt) {
  const int caller_errno = errno;
  const bool shown = prelims_shown();  // decided by the first line, whatever its level
  if (level > 2 && !shown) return;
  std::fprintf(stderr, "*** PID=%u: ", static_cast<unsigned>(getpid()));
  errno = caller_errno;  // "%m" means the caller's
  std::vfprintf(stderr, fmt, ap);
  std::fputs("\n", stderr);
}

bool is_space(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

void vrnlog(int level, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vrnlog(ap, level, fmt);
  va_end(ap);
}

void vrnlog(va_list ap, int level, const char* fmt) {
  const int saved_errno = errno;
  if (!fmt) fmt = "<NULL>";
  try {
    // A look upward: the application shell and its logger are layers above this one.
    const VrnAppShell* shell = VrnAppShell::singleton;
    VrnLog* logger = shell ? shell->usableLogger() : nullptr;
    if (logger) {
      logger->log(ap, level, fmt);
    } else {
      log_to_stderr(ap, level, fmt);
    }
  } catch (...) {
    // Callers log from destructors and error paths: a line that cannot be written is lost.
  }
  errno = saved_errno;
}

void VrnAssertBasic(bool cond, const char* text) {
  if (!cond) throw VrnException(3, "%s", text ? text : "<NULL>");
}

void VrnAssertFull(bool cond, const char* fmt, ...) {
  if (cond) return;
  va_list ap;
  va_start(ap, fmt);
  const VrnException failure(ap, 3, fmt);
  va_end(ap);
  throw failure;
}

char* num2buf(const char* fmt, long value, char* buf) {
  VrnAssertBasic(fmt != nullptr, "num2buf: Null format");
  if (!buf) {
    // cppcheck-suppress invalidPrintfArgType_uint  // the caller's format is for a long
    std::snprintf(localbuf, sizeof localbuf, fmt, value);
    return localbuf;
  }
  // cppcheck-suppress invalidPrintfArgType_uint
  std::sprintf(buf, fmt, value);
  return buf;
}

char* num2buf(long value, char* buf) {
  return num2buf("%d", value, buf);
}

const char* objtag(const char* tag, const void* obj, char* buf) {
  if (tag && *tag) return tag;
  return num2buf("0x%x", static_cast<long>(reinterpret_cast<std::uintptr_t>(obj)), buf);
}

const char* objtag(const std::string& tag, const void* obj, char* buf) {
  return objtag(tag.c_str(), obj, buf);
}

char* strip(char* s, bool shift) {
  VrnAssertBasic(s != nullptr, "strip: Null text");
  char* first = s;
  while (is_space(*first)) ++first;
  char* end = first + std::strlen(first);
  while (end > first && is_space(end[-1])) --end;
  *end = '\0';
  if (!shift) return first;
  std::memmove(s, first, static_cast<std::size_t>(end - first) + 1);
  return s;
}

const char* strip(std::string& s) {
  if (s.empty()) return "";
  std::size_t first = 0;
  std::size_t end = s.size();
  while (first < end && is_space(s[first])) ++first;
  while (end > first && is_space(s[end - 1])) --end;
  s = s.substr(first, end - first);
  return s.c_str();
}

}  // namespace vornfc
