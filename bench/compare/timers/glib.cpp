#include "timers.h"

#include <glib.h>

namespace {

GMainLoop* loop;
std::vector<guint> timers;  // 0: not set

gboolean ready(gpointer number) {
  const auto timer = reinterpret_cast<size_t>(number);
  timers[timer] = 0;
  expired(timer);
  return G_SOURCE_REMOVE;
}

void open(size_t count) {
  loop = g_main_loop_new(nullptr, FALSE);
  timers.resize(count);
}

void stop(size_t timer) {
  if (timers[timer] != 0) g_source_remove(timers[timer]);
  timers[timer] = 0;
}

void start(size_t timer, long usec) {
  stop(timer);
  timers[timer] = g_timeout_add(static_cast<guint>((usec + 999) / 1000), ready,
                                reinterpret_cast<gpointer>(timer));
}

void run() {
  g_main_loop_run(loop);
}

void quit() {
  g_main_loop_quit(loop);
}

const compare::Enter<Timers> entry("glib", {open, start, stop, run, quit});

}  // namespace
