#include "config.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>

namespace {

using File = Poco::Util::IniFileConfiguration;

void* load(const char* path) {
  return new Poco::AutoPtr<File>(new File(path));
}

void unload(void* loaded) {
  delete static_cast<Poco::AutoPtr<File>*>(loaded);
}

size_t look_up(void* loaded, const std::vector<Name>& names) {
  const File& file = **static_cast<Poco::AutoPtr<File>*>(loaded);
  size_t length = 0;
  for (const Name& name : names) length += file.getRawString(name.path).size();
  return length;
}

const compare::Enter<Config> entry("poco", {load, unload, look_up});

}  // namespace
