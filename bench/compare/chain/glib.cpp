#include "chain.h"

#include <glib-unix.h>

namespace {

gboolean ready(gint fd, GIOCondition, gpointer loop) {
  if (!pass(fd)) g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_CONTINUE;
}

void watch(const std::vector<int>& fds) {
  GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
  for (const int fd : fds) g_unix_fd_add(fd, G_IO_IN, ready, loop);
  g_main_loop_run(loop);
}

const compare::Enter<Watch> entry("glib", watch);

}  // namespace
