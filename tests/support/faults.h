#pragma once
// Makes calls of the C library fail on demand. The test program defines these calls itself, and the
// library under test then uses the program's: see the list in faults.cpp, one line a call, and
// polling.h.

namespace sys {

// The next `times` calls of `call` fail: with `errno` set to `error`, or, for a pthread call, with
// `error` as the result. Any thread.
void fail_next(const char* call, int error, int times = 1);

// How often `call` was called so far, failures included. Any thread.
int calls(const char* call);

}  // namespace sys
