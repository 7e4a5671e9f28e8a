#include "chain.h"

#include <sys/epoll.h>
#include <systemd/sd-event.h>

namespace {

int ready(sd_event_source* source, int fd, uint32_t, void*) {
  if (!pass(fd)) sd_event_exit(sd_event_source_get_event(source), 0);
  return 0;
}

void watch(const std::vector<int>& fds) {
  sd_event* loop;
  sd_event_new(&loop);
  for (const int fd : fds) sd_event_add_io(loop, nullptr, fd, EPOLLIN, ready, nullptr);
  sd_event_loop(loop);
}

const compare::Enter<Watch> entry("sdevent", watch);

}  // namespace
