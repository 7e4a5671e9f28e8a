#pragma once
// Finds everything that is wrong with a configuration, and what its writer hardly meant.

#include <cstdio>
#include <string>
#include <vector>

namespace vornfc::conf {

struct Finding {
  std::string file;
  int line;    // counts from 1; 0: about no line of the file
  bool error;  // the library rejects the file; false: a warning
  std::string text;
};

// Reads `in` to its end, as the library does but past the errors. `file` names it in the findings,
// which are in the order of the lines. The groups named in `loggers` are checked as logger groups,
// others only when they look like one.
std::vector<Finding> check_stream(std::FILE* in, const std::string& file,
                                  const std::vector<std::string>& loggers);

}  // namespace vornfc::conf
