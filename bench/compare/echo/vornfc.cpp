#include "vornfc/vornfc.h"

#include "echo.h"

#include <unordered_map>

using namespace vornfc;

namespace {

struct Server : VrnAsyncReceiver {
  explicit Server(int fd) : VrnAsyncReceiver("echo") {
    listening.assign(fd, "listening", false);
    aioStart(&listening);
  }

  void aioReady(VrnFile* file) override {
    if (file == &listening) {
      const int fd = next_caller(listening.fd);
      if (fd == -1) return;
      auto* const caller = new VrnFile;
      caller->assign(fd, "caller", true);
      aioStart(caller);
    } else if (!echo(file->fd)) {
      aioStop(file);
    }
  }
  void aioRemoved(VrnFile* file, bool, bool) override { delete file; }

  VrnFile listening;
};

void serve(int listening) {
  VrnAppShell::evtmgr = VrnEvtMgr::instance();
  Server server(listening);
  VrnAppShell::evtmgr->startDispatcher();
}

const compare::Enter<Serve> entry("vornfc", serve);

}  // namespace
