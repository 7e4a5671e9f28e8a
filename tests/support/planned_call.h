#pragma once
// For the sources of this directory that define calls of the C library: what a test has planned for
// a call, and the way to the definition that the program's own one hides.

#include <dlfcn.h>

#include <cerrno>

namespace sys {

// Counts a call. 0: carry it out; otherwise the error to fail with. Any thread.
int planned_error(const char* call);

void plan_errors(const char* call, int error, int times);
int count_of(const char* call);

// The definition that this program's own one hides.
template <typename R, typename... P>
R forward(const char* call, R (*)(P...), P... args) {
  void* hidden = dlsym(RTLD_NEXT, call);
  return reinterpret_cast<R (*)(P...)>(hidden)(args...);
}

// A call that returns -1 and sets errno.
template <typename... P>
int errno_call(const char* call, int (*self)(P...), P... args) {
  if (const int error = planned_error(call)) {
    errno = error;
    return -1;
  }
  return forward(call, self, args...);
}

// A call that returns the error.
template <typename... P>
int result_call(const char* call, int (*self)(P...), P... args) {
  if (const int error = planned_error(call)) return error;
  return forward(call, self, args...);
}

}  // namespace sys
