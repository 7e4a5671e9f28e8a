#include "report.h"

#include "vornfc/exception.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

Report* report = nullptr;

namespace {

void (*stop_loop)() = nullptr;

void on_stall() {
  if (report->stalled) {
    fail("hang: the library waits for ever");
    _exit(0);
  }
  report->stalled = true;
  if (stop_loop) stop_loop();
}

// What the standard error has taken so far; it is a file in memory.
const char* log_text() {
  static char text[16384];
  const ssize_t size = pread(STDERR_FILENO, text, sizeof text - 1, 0);
  text[size > 0 ? size : 0] = '\0';
  return text;
}

}  // namespace

void fail(const char* fmt, ...) {
  const inject::Own own;
  if (report->failure[0] != '\0') return;
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(report->failure, sizeof report->failure, fmt, args);
  va_end(args);
}

void told() {
  report->told = true;
}

void told_by_exception() {
  try {
    throw;
  } catch (const vornfc::VrnException&) {
    told();
  } catch (const std::bad_alloc&) {
    told();
  } catch (const std::exception& e) {
    fail("undocumented exception: %s", e.what());
  } catch (...) {
    fail("undocumented exception");
  }
}

void lost(const char* what) {
  if (report->harmless && inject::reached()) fail("loss by a harmless fault: %s", what);
  if (!report->told && !log_tells()) fail("silent loss: %s", what);
}

void stop_when_stalled(void (*stop)()) {
  stop_loop = stop;
  inject::hooks.stalled = on_stall;
}

bool log_holds(const char* text) {
  const inject::Own own;
  return std::strstr(log_text(), text) != nullptr;
}

bool log_tells() {
  constexpr const char* signs[] = {"ailed",   "threw",       "Error",   "Invalid", "bad_alloc",
                                   "err=Yes", "returned -1", "Problem", "ABORT",   " ERR "};
  return std::any_of(std::begin(signs), std::end(signs), log_holds);
}
