#pragma once
// What a run under a fault has come to. It lies in memory shared with the process that judges it,
// since the run may end anywhere.

#include "inject.h"

#include <sys/types.h>

#include <cstddef>

struct Report {
  pid_t pid;           // the process that runs the scenario now
  bool reached;        // the fault was met
  bool harmless;       // the fault is one that the library has to get over
  bool complete;       // the scenario has returned
  bool told;           // a failure was reported: exception, result, callback or log line
  bool stalled;        // nothing was left to come while the library waited
  bool may_terminate;  // an exception may end the process here, as documented
  char failure[320];   // what is wrong; empty: nothing
  int counts[inject::CallKinds];
};

extern Report* report;  // of the run in this process

// Notes what is wrong; the first one is kept.
void fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The application has learnt of a failure.
void told();

// To be called in a catch block: an exception that the library may throw has told of a failure.
void told_by_exception();

// Notes a loss of which nobody was told.
void lost(const char* what);

// Carries out calls of the library, counted, inside or outside an Own scope. False: they threw.
template <typename Calls>
bool library(Calls calls) {
  const inject::Lib lib;
  try {
    calls();
    return true;
  } catch (...) {
    const inject::Own own;
    told_by_exception();
    return false;
  }
}

// The loop's thread waits although nothing is left to come: `stop` is called once; if the library
// then waits again, it hangs.
void stop_when_stalled(void (*stop)());

bool log_holds(const char* text);  // what the library has logged
bool log_tells();                  // it tells of a failure
