// Two support functions of the application's own; the archive brings the others.

#include <vornsupport/support.h>

#include <cstdio>

int gnl_init(gnl_init_ctrl*) {
  std::puts("own gnl_init");
  return 0;
}

int utime_diff(const timeval* from, const timeval* to) {
  static bool told = false;
  if (!told) std::puts("own utime_diff");
  told = true;
  return static_cast<int>((to->tv_sec - from->tv_sec) * 1000000 + to->tv_usec - from->tv_usec);
}
