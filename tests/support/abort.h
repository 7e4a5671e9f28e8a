#pragma once
// For tests of calls that end the process by abort().

// From now on abort() writes the counts of a build for coverage, which it does not by itself. The
// process still ends by SIGABRT. In other builds nothing changes.
void count_aborts();
