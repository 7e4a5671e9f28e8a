#pragma once
// The time of day of a program: it is set by steps, and goes on at the pace of the system's clock
// between them. The program defines gettimeofday(), and the library then uses that one.

#include <sys/time.h>

// Sets the time of day by so many seconds, forward or back. Any thread.
void step_clock(long seconds);

// Tells whether the clock was set between two moments: the same even number before and after means
// that it was not.
unsigned clock_setting();

timeval time_of_day();
