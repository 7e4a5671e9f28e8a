// Configuration files: the time to load one, and to look a value up.
//   groups=10000   in the file
//   items=10       in a group
//   lookup=0       1: look-ups of values that are there, in random order
//   ms=500         of measuring
#include "config.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <random>

namespace {

using compare::now;

std::string group_name(long group) {
  return "group" + std::to_string(group);
}
std::string item_name(long item) {
  return "item" + std::to_string(item);
}
std::string value_of(long group, long item) {
  return "value " + std::to_string(item) + " of group " + std::to_string(group);
}

// Writes a file in a syntax that all contenders share; the result is what it says.
std::string write_file(const std::string& path, long groups, long items) {
  std::string text;
  for (long group = 0; group < groups; ++group) {
    text += "[" + group_name(group) + "]\n";
    for (long item = 0; item < items; ++item) {
      text += item_name(item) + " = " + value_of(group, item) + "\n";
    }
    text += "\n";
  }
  std::ofstream(path) << text;
  return text;
}

void measure(const Config& config, const compare::Arguments& arguments) {
  const long groups = arguments.number("groups", 10000);
  const long items = arguments.number("items", 10);
  const double seconds = static_cast<double>(arguments.number("ms", 500)) / 1000;
  char path[] = "/tmp/compare_config_XXXXXX";
  close(mkstemp(path));
  const size_t size = write_file(path, groups, items).size();

  std::vector<Name> names;
  size_t length = 0;
  for (long group = 0; group < groups; ++group) {
    for (long item = 0; item < items; ++item) {
      names.push_back(
          {group_name(group), item_name(item), group_name(group) + "." + item_name(item)});
      length += value_of(group, item).size();
    }
  }
  std::shuffle(names.begin(), names.end(), std::mt19937(1));

  void* loaded = config.load(path);
  if (config.look_up(loaded, names) != length) {
    std::fprintf(stderr, "not all values were found\n");
    std::exit(1);
  }
  double used = 0;
  double done = 0;
  if (arguments.number("lookup", 0) != 0) {
    const double begin = now();
    for (; used < seconds; used = now() - begin) {
      config.look_up(loaded, names);
      done += static_cast<double>(names.size());
    }
    compare::report("ns_per_lookup", used / done * 1e9);
  } else {
    for (; used < seconds; ++done) {
      config.unload(loaded);
      const double begin = now();
      loaded = config.load(path);
      used += now() - begin;
    }
    compare::report("ms_per_load", used / done * 1e3);
    compare::report("mb_per_s", static_cast<double>(size) * done / used / 1e6);
  }
  config.unload(loaded);
  std::remove(path);
}

}  // namespace

int main(int argc, char** argv) {
  return compare::run<Config>(argc, argv, measure);
}
