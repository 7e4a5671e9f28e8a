#pragma once
// The gettimeofday() of a fuzz target, which the library then uses: time does not pass by itself.

// Microseconds since the epoch. At the start it is the middle of November 2023.
void set_clock(long now);
long clock_now();
