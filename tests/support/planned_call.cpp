#include "planned_call.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sys {

namespace {

// What a test asked of one call, and how often that was called. Lock-free, since some of these
// calls are left by a jump out of a signal handler, and ready before any constructor has run.
struct Plan {
  std::atomic<const char*> call{nullptr};
  std::atomic<int> error{0};
  std::atomic<int> failures_left{0};
  std::atomic<int> count{0};
};

Plan plans[64];

Plan& plan_of(const char* call) {
  for (Plan& plan : plans) {
    const char* owner = nullptr;
    if (plan.call.compare_exchange_strong(owner, call) || std::strcmp(owner, call) == 0) {
      return plan;
    }
  }
  std::fprintf(stderr, "faults: no room for %s\n", call);
  std::abort();
}

}  // namespace

int planned_error(const char* call) {
  Plan& plan = plan_of(call);
  ++plan.count;
  for (int left = plan.failures_left; left > 0;) {
    if (plan.failures_left.compare_exchange_weak(left, left - 1)) return plan.error;
  }
  return 0;
}

void plan_errors(const char* call, int error, int times) {
  Plan& plan = plan_of(call);
  plan.error = error;
  plan.failures_left = times;
}

int count_of(const char* call) {
  return plan_of(call).count;
}

}  // namespace sys
