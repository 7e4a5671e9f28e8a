#include "echo.h"

#include <glib-unix.h>

namespace {

gboolean ready(gint fd, GIOCondition, gpointer) {
  if (echo(fd)) return G_SOURCE_CONTINUE;
  close(fd);
  return G_SOURCE_REMOVE;
}

gboolean callers(gint listening, GIOCondition, gpointer) {
  const int fd = next_caller(listening);
  if (fd != -1) g_unix_fd_add(fd, G_IO_IN, ready, nullptr);
  return G_SOURCE_CONTINUE;
}

void serve(int listening) {
  g_unix_fd_add(listening, G_IO_IN, callers, nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

const compare::Enter<Serve> entry("glib", serve);

}  // namespace
