#pragma once
#include "contender.h"

#include <cstddef>

// A loop with timers that are known by their number. Each has the resolution of its library:
// those that count milliseconds round up.
struct Timers {
  void (*open)(size_t count);                  // the loop, and its timers, not set
  void (*start)(size_t timer, long usec);      // sets the timer, once; anew if it is set
  void (*stop)(size_t timer);                  // takes it back
  void (*run)();                               // returns after quit()
  void (*quit)();                              // from within a callback
  void (*outside)(void (*calls)()) = nullptr;  // has the calls made outside of the loop; null:
                                               // they are made without a loop that runs
};

// What a timer's callback calls.
void expired(size_t timer);
