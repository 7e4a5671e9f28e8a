#include "echo.h"

#include <ev.h>

namespace {

void ready(struct ev_loop* loop, ev_io* watcher, int) {
  if (echo(watcher->fd)) return;
  ev_io_stop(loop, watcher);
  close(watcher->fd);
  delete watcher;
}

void callers(struct ev_loop* loop, ev_io* watcher, int) {
  const int fd = next_caller(watcher->fd);
  if (fd == -1) return;
  auto* const caller = new ev_io;
  ev_io_init(caller, ready, fd, EV_READ);
  ev_io_start(loop, caller);
}

void serve(int listening) {
  struct ev_loop* const loop = ev_loop_new(0);
  ev_io watcher;
  ev_io_init(&watcher, callers, listening, EV_READ);
  ev_io_start(loop, &watcher);
  ev_run(loop, 0);
}

const compare::Enter<Serve> entry("libev", serve);

}  // namespace
