// A program that uses the library and keeps its own main.

#include <vornfc/exception.h>
#include <vornfc/mutex.h>

#include <cstdio>

int main() {
  vornfc::VrnMutex mutex("mine");
  try {
    const vornfc::VrnMutexGuard guard(&mutex);
    throw vornfc::VrnException(9, "thrown in %s", "own main");
  } catch (...) {
    std::puts(vornfc::VrnException::handler().c_str());
  }
  return 0;
}
