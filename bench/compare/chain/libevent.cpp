#include "chain.h"

#include <event2/event.h>

namespace {

void ready(evutil_socket_t fd, short, void* base) {
  if (!pass(fd)) event_base_loopbreak(static_cast<event_base*>(base));
}

void watch(const std::vector<int>& fds) {
  event_base* const base = event_base_new();
  for (const int fd : fds) {
    event_add(event_new(base, fd, EV_READ | EV_PERSIST, ready, base), nullptr);
  }
  event_base_dispatch(base);
}

const compare::Enter<Watch> entry("libevent", watch);

}  // namespace
