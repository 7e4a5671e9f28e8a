#include "chain.h"

#include <asio.hpp>
#include <deque>

namespace {

using Descriptor = asio::posix::stream_descriptor;

struct Watcher {
  void wait() {
    descriptor.async_wait(Descriptor::wait_read, [this](const asio::error_code& error) {
      if (error) return;
      if (pass(descriptor.native_handle())) {
        wait();
      } else {
        context.stop();
      }
    });
  }
  asio::io_context& context;
  Descriptor descriptor;
};

void watch(const std::vector<int>& fds) {
  asio::io_context context(1);
  std::deque<Watcher> watchers;
  for (const int fd : fds) {
    watchers.push_back({context, Descriptor(context, fd)});
    watchers.back().wait();
  }
  context.run();
}

const compare::Enter<Watch> entry("asio", watch);

}  // namespace
