#pragma once
// The state behind an assigned VrnFile, shared with the event manager that watches it.

#include "vornfc/file.h"

#include <atomic>
#include <string>
#include <vector>

namespace vornfc {

class VrnAIO;

struct ImplFile {
  ImplFile(const std::string& file_name, bool is_owner) : name(file_name), owns(is_owner) {}

  const std::string name;
  bool owns;
  int flags = -1;  // as fcntl(F_GETFL) gave them; -1: not read yet

  // The event manager's and its watchers', guarded by the registry lock.
  int watched_fd = -1;              // the descriptor number it is registered under; -1: not watched
  std::vector<VrnAIO*> listed_by;   // watchers that keep a list of their files, with this one in it
  int stopping = 0;                 // threads that are stopping a watch of it
  std::atomic<bool> closed{false};  // the event manager has closed the descriptor

  std::atomic<bool> requested{false};  // a start or stop request has named the file

  static ImplFile* of(VrnFile* file) { return file->impl.get(); }  // null: unassigned

  // Called by the destructor of a file that the event manager has known. The event manager sets it:
  // files are the lower layer and do not know who watches them.
  static std::atomic<void (*)(VrnFile*)> end_of_watched_file;
};

}  // namespace vornfc
