#include "config.h"
#include "vornfc/config.h"

namespace {

void* load(const char* path) {
  return new vornfc::VrnConfig(path);
}

void unload(void* loaded) {
  delete static_cast<vornfc::VrnConfig*>(loaded);
}

size_t look_up(void* loaded, const std::vector<Name>& names) {
  const auto* const config = static_cast<vornfc::VrnConfig*>(loaded);
  size_t length = 0;
  for (const Name& name : names) length += config->value(name.group, name.item, true, 0).size();
  return length;
}

const compare::Enter<Config> entry("vornfc", {load, unload, look_up});

}  // namespace
