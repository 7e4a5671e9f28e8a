#include "echo.h"

#include <sys/epoll.h>
#include <systemd/sd-event.h>

namespace {

int ready(sd_event_source* source, int fd, uint32_t, void*) {
  if (echo(fd)) return 0;
  sd_event_source_disable_unref(source);
  close(fd);
  return 0;
}

int callers(sd_event_source* source, int listening, uint32_t, void*) {
  const int fd = next_caller(listening);
  if (fd == -1) return 0;
  sd_event_source* caller;
  sd_event_add_io(sd_event_source_get_event(source), &caller, fd, EPOLLIN, ready, nullptr);
  return 0;
}

void serve(int listening) {
  sd_event* loop;
  sd_event_new(&loop);
  sd_event_add_io(loop, nullptr, listening, EPOLLIN, callers, nullptr);
  sd_event_loop(loop);
}

const compare::Enter<Serve> entry("sdevent", serve);

}  // namespace
