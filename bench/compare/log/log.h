#pragma once
#include "contender.h"

// A log file: records of time in milliseconds, level, process or source, thread and a message of
// some 60 characters with two arguments. Each is with the file before the call returns.
struct Log {
  // The file is `path`, or has a name that begins with it. Debugging records are below the level.
  void (*open)(const std::string& path);
  void (*records)(int count);   // any thread
  void (*filtered)(int count);  // debugging records
};

// Keeps a loop of records that are dropped from being folded into one look at the level.
inline void next_record() {
  asm volatile("" ::: "memory");
}
