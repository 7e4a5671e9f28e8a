#include "vornfc/vornfc.h"

#include "chain.h"

#include <deque>

using namespace vornfc;

namespace {

struct Receiver : VrnAsyncReceiver {
  Receiver() : VrnAsyncReceiver("chain") {}
  void aioReady(VrnFile* file) override {
    if (!pass(file->fd)) VrnAppShell::evtmgr->stopDispatcher();
  }
  void aioRemoved(VrnFile*, bool, bool) override {}
};

void watch(const std::vector<int>& fds) {
  VrnAppShell::evtmgr = VrnEvtMgr::instance();
  std::deque<VrnFile> files;
  Receiver receiver;
  for (const int fd : fds) {
    files.emplace_back().assign(fd, "pipe", false);
    receiver.aioStart(&files.back());
  }
  VrnAppShell::evtmgr->startDispatcher();
}

const compare::Enter<Watch> entry("vornfc", watch);

}  // namespace
