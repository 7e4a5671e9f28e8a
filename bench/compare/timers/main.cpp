// Timers, in one of four scenarios; times are CPU time, so waiting does not count, but for `late`.
//   scenario=expire   count=100000 timers, due at all times of the next 100 ms, are set and expire
//   scenario=rearm    1000 timers set themselves anew whenever they expire, delay=1000 us ahead, in
//                     the company of armed=10000 that are far ahead; each callback sets others=0
//                     of these anew as well; count=1000000 settings, a second at most
//   scenario=outside  one timer is set and taken back, outside of the loop, in the company of
//                     armed=10000; count=2000000 times
//   scenario=late     count=100 timers, one at a time, due in 1 to 20 ms: how late they expire,
//                     against the time of the call that set them; below 0: early
#include "timers.h"

#include <algorithm>
#include <random>
#include <vector>

namespace {

using compare::cpu;
using compare::now;

const Timers* timers;
std::minstd_rand generator;
void (*on_expiry)(size_t timer);

size_t armed, count, done;
double begin, end;

long random_up_to(long limit) {
  return static_cast<long>(generator()) % limit;
}

long far_ahead() {
  return 1000000000 + random_up_to(1000000000);
}

void set_armed() {
  for (size_t timer = 0; timer < armed; ++timer) timers->start(timer, far_ahead());
}

void report_each(const char* metric) {
  if (end == 0) {
    std::fputs("the loop ended early\n", stderr);
    std::exit(1);
  }
  compare::report(metric, (end - begin) / static_cast<double>(done) * 1e9);
}

// ---- expire ----

void count_expiry(size_t) {
  if (++done < count) return;
  end = cpu();
  timers->quit();
}

void expire() {
  timers->open(count);
  on_expiry = count_expiry;
  begin = cpu();
  for (size_t timer = 0; timer < count; ++timer) timers->start(timer, random_up_to(100000));
  timers->run();
  report_each("ns_per_timer");
}

// ---- rearm ----

constexpr size_t Rearming = 1000;
long delay;
size_t others, next_other, expiries;
double time_limit;

void set_anew(size_t timer) {
  if (end != 0) return;
  timers->start(timer, delay);
  for (size_t i = 0; i < others; ++i) {
    timers->start(next_other, far_ahead());
    next_other = (next_other + 7919) % armed;
  }
  done += 1 + others;
  const bool check = ++expiries % 1000 == 0;
  if (begin == 0) {
    if (!check) return;
    begin = cpu();  // every timer has expired once
    time_limit = now() + 1;
    done = 0;
  } else if (done >= count || (check && now() > time_limit)) {
    end = cpu();
    timers->quit();
  }
}

void rearm() {
  timers->open(armed + Rearming);
  on_expiry = set_anew;
  set_armed();
  for (size_t timer = armed; timer < armed + Rearming; ++timer) timers->start(timer, delay);
  timers->run();
  report_each("ns_per_rearm");
}

// ---- outside ----

void set_and_take_back() {
  set_armed();
  begin = cpu();
  for (; done < count; ++done) {
    timers->start(armed, far_ahead());
    timers->stop(armed);
  }
  end = cpu();
}

void unexpected(size_t) {
  std::fputs("a timer expired that is far ahead\n", stderr);
  std::exit(1);
}

void outside() {
  timers->open(armed + 1);
  on_expiry = unexpected;
  if (timers->outside) {
    timers->outside(set_and_take_back);
  } else {
    set_and_take_back();
  }
  report_each("ns_per_pair");
}

// ---- late ----

double due;
std::vector<double> lateness;

void set_next() {
  const long usec = 1000 + random_up_to(19000);
  due = now() + static_cast<double>(usec) / 1e6;
  timers->start(0, usec);
}

void note_lateness(size_t) {
  lateness.push_back(now() - due);
  if (lateness.size() < count) {
    set_next();
  } else {
    timers->quit();
  }
}

void late() {
  timers->open(1);
  on_expiry = note_lateness;
  set_next();
  timers->run();
  std::sort(lateness.begin(), lateness.end());
  compare::report("earliest_us", lateness.front() * 1e6);
  compare::report("p50_us", lateness[lateness.size() / 2] * 1e6);
  compare::report("p99_us", lateness[lateness.size() * 99 / 100] * 1e6);
}

struct Scenario {
  const char* name;
  long count;
  void (*measure)();
};
constexpr Scenario scenarios[] = {{"expire", 100000, expire},
                                  {"rearm", 1000000, rearm},
                                  {"outside", 2000000, outside},
                                  {"late", 100, late}};

void measure(const Timers& contender, const compare::Arguments& arguments) {
  timers = &contender;
  armed = static_cast<size_t>(arguments.number("armed", 10000));
  delay = arguments.number("delay", 1000);
  others = static_cast<size_t>(arguments.number("others", 0));
  for (const std::string& word : arguments.words) {
    for (const Scenario& scenario : scenarios) {
      if (word != std::string("scenario=") + scenario.name) continue;
      count = static_cast<size_t>(arguments.number("count", scenario.count));
      return scenario.measure();
    }
  }
  std::fputs("no scenario, or an unknown one\n", stderr);
  std::exit(2);
}

}  // namespace

void expired(size_t timer) {
  on_expiry(timer);
}

int main(int argc, char** argv) {
  return compare::run<Timers>(argc, argv, measure);
}
