#pragma once
#include "contender.h"

// The name of a value. Some interfaces take it in one text: "group.item".
struct Name {
  std::string group, item, path;
};

// A configuration file.
struct Config {
  void* (*load)(const char* path);
  void (*unload)(void* loaded);
  // Looks each value up as a text of the caller's own. The total of their lengths.
  size_t (*look_up)(void* loaded, const std::vector<Name>& names);
};
