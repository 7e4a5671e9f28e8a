#include "chain.h"

#include <uv.h>

namespace {

void ready(uv_poll_t* handle, int, int) {
  uv_os_fd_t fd;
  uv_fileno(reinterpret_cast<uv_handle_t*>(handle), &fd);
  if (!pass(fd)) uv_stop(handle->loop);
}

void watch(const std::vector<int>& fds) {
  uv_loop_t loop;
  uv_loop_init(&loop);
  std::vector<uv_poll_t> handles(fds.size());
  for (size_t i = 0; i < fds.size(); ++i) {
    uv_poll_init(&loop, &handles[i], fds[i]);
    uv_poll_start(&handles[i], UV_READABLE, ready);
  }
  uv_run(&loop, UV_RUN_DEFAULT);
}

const compare::Enter<Watch> entry("libuv", watch);

}  // namespace
