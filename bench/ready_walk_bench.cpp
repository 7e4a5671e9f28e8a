// What does a turn of the loop cost by the descriptors that are watched, and by those of them that
// are ready?

#include "vornfc/evtmgr.h"
#include "vornfc/file.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace {

class Reader : public vornfc::VrnAIO {
 public:
  explicit Reader(std::function<void()> call) : VrnAIO(true, "reader"), ready(std::move(call)) {}
  void aioReady(vornfc::VrnFile*) override { ready(); }
  void aioCancelled(vornfc::VrnFile*, bool, bool) override {}

 private:
  const std::function<void()> ready;
};

// A watched socket whose peer is held open; with a byte in it, it stays ready.
class Channel {
 public:
  Channel(vornfc::VrnAIO* aio, bool with_byte) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) return;
    file.assign(ends[0], "watched", true);
    peer.assign(ends[1], "peer", true);
    if (with_byte) is_good = write(peer.fd, "x", 1) == 1;
    vornfc::VrnEvtMgr::instance()->startAIO(&file, aio);
  }

  bool good() const { return file.fd != -1 && is_good; }

 private:
  vornfc::VrnFile file;
  vornfc::VrnFile peer;
  bool is_good = true;
};

void raise_descriptor_limit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// Arguments: watched descriptors, ready ones among them (at least 1).
void BM_Turn(benchmark::State& state) {
  raise_descriptor_limit();
  vornfc::VrnEvtMgr* const manager = vornfc::VrnEvtMgr::instance();
  long delivered = 0;
  bool ending = false;
  Reader reader([&] { ++delivered; });
  Reader clock([&] {  // one of the ready ones: called once in a turn
    ++delivered;
    if (ending || state.KeepRunning()) return;
    ending = true;
    manager->stopDispatcher();
  });
  std::vector<std::unique_ptr<Channel>> channels;
  const long watched = state.range(0);
  const long every = watched / state.range(1);  // the ready ones are spread over the others
  for (long i = 0; i < watched; ++i) {
    channels.push_back(std::make_unique<Channel>(i == 0 ? &clock : &reader, i % every == 0));
  }
  if (std::all_of(channels.begin(), channels.end(), [](const auto& c) { return c->good(); })) {
    manager->startDispatcher();
  } else {
    state.SkipWithError("not enough descriptors");
  }
  state.SetItemsProcessed(delivered);
  channels.clear();
  vornfc::VrnEvtMgr::destroy();
}
BENCHMARK(BM_Turn)
    ->ArgNames({"watched", "ready"})
    ->Args({1, 1})
    ->Args({100, 1})
    ->Args({100, 100})
    ->Args({1000, 1})
    ->Args({1000, 1000})
    ->Args({5000, 1})
    ->Args({5000, 100});

}  // namespace
