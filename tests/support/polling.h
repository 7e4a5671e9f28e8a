#pragma once
// The poll() and gettimeofday() of the test program, which the library under test then uses.
// sys::fail_next("poll", ...) of faults.h comes before everything here.

#include <poll.h>
#include <sys/time.h>

#include <functional>

namespace sys {

using Poll = std::function<int(pollfd* entries, nfds_t count, int timeout)>;

// From now on `*wait` stands in for poll() on the calling thread; null: the system's poll() again.
// Not owned.
void set_poll(const Poll* wait);

int system_poll(pollfd* entries, nfds_t count, int timeout);  // the one that is stood in for

// From now on it is `now` for every thread, until the clock is set again.
void set_clock(const timeval& now);

// Whether the event manager, by its settings in the environment, gives poll() just the descriptors
// that are watched: a test that looks at these is skipped otherwise.
bool gives_poll_the_table();

}  // namespace sys
