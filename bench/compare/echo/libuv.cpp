#include "echo.h"

#include <uv.h>

namespace {

// uv_poll_t, as the work is that of the descriptor's user for every contender.
void ready(uv_poll_t* handle, int, int) {
  uv_os_fd_t fd;
  uv_fileno(reinterpret_cast<uv_handle_t*>(handle), &fd);
  if (echo(fd)) return;
  uv_poll_stop(handle);
  close(fd);
  uv_close(reinterpret_cast<uv_handle_t*>(handle),
           [](uv_handle_t* closed) { delete reinterpret_cast<uv_poll_t*>(closed); });
}

void callers(uv_poll_t* handle, int, int) {
  uv_os_fd_t listening;
  uv_fileno(reinterpret_cast<uv_handle_t*>(handle), &listening);
  const int fd = next_caller(listening);
  if (fd == -1) return;
  auto* const caller = new uv_poll_t;
  uv_poll_init(handle->loop, caller, fd);
  uv_poll_start(caller, UV_READABLE, ready);
}

void serve(int listening) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  uv_poll_t handle;
  uv_poll_init(&loop, &handle, listening);
  uv_poll_start(&handle, UV_READABLE, callers);
  uv_run(&loop, UV_RUN_DEFAULT);
}

const compare::Enter<Serve> entry("libuv", serve);

}  // namespace
