#pragma once
// A descriptor that is closed unless somebody takes it over.

#include <unistd.h>

namespace vornfc {

// Owns a descriptor from the call that opened it until release(). -1: none.
class UniqueFd {
 public:
  explicit UniqueFd(int opened) : fd(opened) {}
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() {
    if (fd != -1) close(fd);
  }

  int get() const { return fd; }
  void release() { fd = -1; }  // somebody else closes it now

 private:
  int fd;
};

}  // namespace vornfc
