#pragma once
// What a record of a log looks like, put together a second time.

#include <string>

struct RecordFormat {
  std::string timefmt;    // empty: the built-in one
  int timeprec = 2;       // 1 to 3
  std::string tagprefix;  // with its "-"
};

std::string level_symbol(int level);

// The record that this thread writes at the present of clock.h, with its line end.
std::string record_line(const RecordFormat& format, int level, const std::string& message);
