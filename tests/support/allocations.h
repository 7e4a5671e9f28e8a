#pragma once
// Counts the allocations of a test program and of the libraries that it uses.

#include <gtest/gtest.h>

namespace sys {

// The calls of operator new that the calling thread has made.
long allocations();

// False: a sanitizer has its own operator new, and the calling thread's count stays 0. Without a
// sanitizer it is true in any case: a count of 0 is then a defect of the test program.
bool counts_allocations();

// Makes one of the calling thread's next calls of operator new fail: 1 is the next one, 0 none.
void fail_allocation(long number);

}  // namespace sys

// The head of a test that counts allocations. Where they can be counted, they have to be.
#define REQUIRE_COUNTED_ALLOCATIONS()                                             \
  if (!sys::counts_allocations()) GTEST_SKIP() << "a sanitizer has operator new"; \
  ASSERT_GT(sys::allocations(), 0) << "allocations are not seen"
