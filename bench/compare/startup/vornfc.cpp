// The smallest application; main() is the library's.
#include "vornfc/vornfc.h"

#include "started.h"

namespace {

struct Application : vornfc::VrnAppShell {
  Application() : VrnAppShell(nullptr, "startup", nullptr, nullptr) {}
  void appRun() override { started(); }
};

Application application;

}  // namespace
