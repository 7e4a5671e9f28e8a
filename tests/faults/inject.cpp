#include "inject.h"

#include <atomic>

namespace inject {

Hooks hooks;
std::size_t throttle = 0;
std::time_t clock_time = 0;

namespace {

// Lock-free: signal handlers of the library make calls too.
std::atomic<bool> counting{false};
std::atomic<bool> own{false};
std::atomic<int> counts[CallKinds];
std::atomic<int> total{0};
std::atomic<long> outstanding{0};

Call planned_call = Call::Accept;
int planned_number = 0;  // 0: none
Fault planned_fault;
std::atomic<int> met_count{0};  // how often the fault was met

}  // namespace

void arm(Call call, int number, const Fault& fault) {
  planned_call = call;
  planned_number = number;
  planned_fault = fault;
  counting = true;
}

void arm() {
  counting = true;
}

void disarm() {
  counting = false;
}

int count(Call call) {
  return counts[static_cast<std::size_t>(call)];
}

bool reached() {
  return met_count > 0;
}

bool met(Call call) {
  return met_count > 0 && call == planned_call;
}

bool met(int error) {
  return met_count > 0 && planned_fault.kind == Fault::Error && planned_fault.error == error;
}

bool active() {
  return counting && !own;
}

long allocations() {
  return outstanding;
}

Decision next(Call call, std::size_t length) {
  Decision carry_out;
  carry_out.length = length;
  if (!active()) return carry_out;
  if (++total > hooks.most_calls && hooks.spins) hooks.spins();
  const int number = ++counts[static_cast<std::size_t>(call)];
  if (planned_number == 0 || call != planned_call || number < planned_number) return carry_out;
  if (number >= planned_number + planned_fault.times) return carry_out;
  if (planned_fault.kind == Fault::Error) {
    ++met_count;
    return {planned_fault.error, length};
  }
  if (length < 2) return carry_out;  // nothing to cut
  ++met_count;
  return {0, planned_fault.kind == Fault::ShortOne ? 1 : length / 2};
}

void allocated() {
  ++outstanding;
}

void freed() {
  --outstanding;
}

Own::Own() : was(own.exchange(true)) {}

Own::~Own() {
  own = was;
}

Lib::Lib() : was(own.exchange(false)) {}

Lib::~Lib() {
  own = was;
}

}  // namespace inject
