#include "echo.h"

#include <event2/event.h>

namespace {

void ready(evutil_socket_t fd, short, void* self) {
  if (echo(fd)) return;
  event_free(*static_cast<event**>(self));
  delete static_cast<event**>(self);
  close(fd);
}

void callers(evutil_socket_t listening, short, void* base) {
  const int fd = next_caller(listening);
  if (fd == -1) return;
  auto** const self = new event*;
  *self = event_new(static_cast<event_base*>(base), fd, EV_READ | EV_PERSIST, ready, self);
  event_add(*self, nullptr);
}

void serve(int listening) {
  event_base* const base = event_base_new();
  event_add(event_new(base, listening, EV_READ | EV_PERSIST, callers, base), nullptr);
  event_base_dispatch(base);
}

const compare::Enter<Serve> entry("libevent", serve);

}  // namespace
