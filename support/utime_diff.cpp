#include "vornsupport/support.h"

#include <algorithm>
#include <limits>

namespace {

// Wide enough for the distance of any two timevals: that takes 86 bits.
__extension__ using Microseconds = __int128;

Microseconds since_epoch(const timeval& time) {
  return Microseconds{time.tv_sec} * 1000000 + time.tv_usec;
}

}  // namespace

int utime_diff(const timeval* from, const timeval* to) {
  const Microseconds distance = since_epoch(*to) - since_epoch(*from);
  return static_cast<int>(std::clamp<Microseconds>(distance, std::numeric_limits<int>::min(),
                                                   std::numeric_limits<int>::max()));
}
