// Loads a configuration, asks it, writes it out, and reads it again after it has changed, with
// observers told; then the same by the application shell, with a logger of the configuration's.

#include "report.h"
#include "scenario.h"
#include "vornfc/vornfc.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

using inject::Own;
using vornfc::VrnConfig;
using vornfc::VrnConfigMgr;
using vornfc::VrnNotifier;
using vornfc::VrnObserver;

namespace {

constexpr int Groups = 8;
constexpr int Items = 5;

std::array<char, 64> path{};

// Group N, item I: "value N.I.GENERATION; second".
void write_file(int generation) {
  const Own own;
  std::FILE* const file = std::fopen(path.data(), "w");
  for (int group = 1; group <= Groups; ++group) {
    std::fprintf(file, "[group %d]\n# a comment\n", group);
    for (int item = 1; item <= Items; ++item) {
      std::fprintf(file, "item %d = value %d.%d.%d; \" second\\; \"\n", item, group, item,
                   generation);
    }
    std::fprintf(file, "number = %d\nswitch = Yes\n\n", group);
  }
  std::fclose(file);
}

// Every query gives what the file says, or throws.
void check_values(const VrnConfig& config, int generation) {
  for (int group = 1; group <= Groups; ++group) {
    char name[32];
    std::snprintf(name, sizeof name, "GROUP %d", group);
    for (int item = 1; item <= Items; ++item) {
      char item_name[32];
      char wanted[48];
      std::snprintf(item_name, sizeof item_name, "Item %d", item);
      std::snprintf(wanted, sizeof wanted, "value %d.%d.%d", group, item, generation);
      library([&] {
        const std::string value = config.value(name, item_name, true, 0);
        if (value != wanted) fail("%s: %s instead of %s", name, value.c_str(), wanted);
        const auto values = config.values(name, item_name, true);
        if (values.size() != 2 || values[1] != " second; ") fail("%s: second value", name);
      });
    }
    library([&] {
      if (config.intval(name, "number", -1, 0) != group) fail("%s: number", name);
      if (!config.boolval(name, "switch", false, 0)) fail("%s: switch", name);
    });
  }
}

void check_lists(const VrnConfig& config) {
  library([&] {
    if (config.groups().size() != Groups) fail("%zu groups", config.groups().size());
    if (config.items("group 1", true).size() != Items + 2) fail("items of group 1");
  });
}

// A copy of the configuration, written out and read again, says the same.
void check_dump(const VrnConfig& config, int generation) {
  std::array<char, 64> dumped{};
  std::snprintf(dumped.data(), dumped.size(), "%s/dump", work_directory);
  std::FILE* stream = nullptr;
  {
    const Own own;
    stream = std::fopen(dumped.data(), "w");
  }
  bool written = library([&] {
    VrnConfig copy;
    copy = config;
    copy.dump(stream);
  });
  {
    const Own own;
    written = std::fclose(stream) == 0 && written;
  }
  if (written) library([&] { check_values(VrnConfig(dumped.data()), generation); });
}

class Observer : public VrnObserver {
 public:
  void observerNotified(VrnNotifier*) override { ++notified; }
  void observerDetached(VrnNotifier*) override { ++detached; }
  std::string observerName() const override { return "observer"; }

  int notified = 0;
  int detached = 0;
};

void reload(VrnConfigMgr* manager) {
  VrnConfig* const config = manager->config;
  std::array<Observer, 3> observers;
  bool attached = true;
  for (Observer& observer : observers) {
    attached = library([&] { manager->attach(&observer); }) && attached;
  }
  check_values(*config, 1);
  check_lists(*config);
  check_dump(*config, 1);
  write_file(2);
  const bool updated = library([&] {
    config->update();
    manager->notifyObservers();
  });
  if (updated) check_values(*config, 2);
  if (updated && attached) {
    for (const Observer& observer : observers) {
      if (observer.notified != 1) lost("a notification");
    }
  }
  for (Observer& observer : observers) library([&] { manager->detach(&observer); });
}

}  // namespace

void run_reload() {
  std::snprintf(path.data(), path.size(), "%s/config", work_directory);
  write_file(1);
  std::unique_ptr<VrnConfigMgr> manager;
  const bool loaded = library([&] {
    auto config = std::make_unique<VrnConfig>(path.data());
    manager = std::make_unique<VrnConfigMgr>(config.get(), "group 1");
    static_cast<void>(config.release());
  });
  if (loaded) reload(manager.get());
}
