#include "support/allocations.h"

#include "support/sanitizers.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

thread_local long count = 0;
thread_local long until_failure = 0;

}  // namespace

namespace sys {

long allocations() {
  return count;
}

bool counts_allocations() {
#ifdef VORNFC_TEST_SANITIZED
  return count > 0;
#else
  return true;
#endif
}

void fail_allocation(long number) {
  until_failure = number;
}

}  // namespace sys

// Gives way to the operators of a sanitizer that insists on its own.
__attribute__((weak)) void* operator new(std::size_t size) {
  ++count;
  if (until_failure > 0 && --until_failure == 0) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
__attribute__((weak)) void operator delete(void* memory) noexcept {
  std::free(memory);
}
__attribute__((weak)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
