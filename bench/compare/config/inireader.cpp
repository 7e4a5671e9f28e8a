#include "config.h"

#include <INIReader.h>

namespace {

void* load(const char* path) {
  auto* const reader = new INIReader(path);
  if (reader->ParseError() != 0) std::abort();
  return reader;
}

void unload(void* loaded) {
  delete static_cast<INIReader*>(loaded);
}

size_t look_up(void* loaded, const std::vector<Name>& names) {
  const auto* const reader = static_cast<INIReader*>(loaded);
  size_t length = 0;
  const std::string missing;
  for (const Name& name : names) length += reader->Get(name.group, name.item, missing).size();
  return length;
}

const compare::Enter<Config> entry("inih", {load, unload, look_up});

}  // namespace
