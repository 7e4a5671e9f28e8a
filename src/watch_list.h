#pragma once
// The files of one of the library's own input watchers.

#include "vornfc/evtmgr.h"
#include "vornfc/file.h"

#include <cstddef>
#include <map>
#include <optional>

namespace vornfc {

// The files that a watcher has started and that have not left it, each with what is wanted of it.
// The list is guarded by the registry lock, not by the watcher's own: the dispatcher drops files
// while an application thread may hold that one. So an entry is read and written as a copy.
class WatchList {
 public:
  enum Ending { None, Asked, EndOfFile, Failed };  // why a stop of the file is under way

  // A reader's request; a receiver leaves it as it is.
  struct Request {
    int requested = 0;  // bytes wanted in the buffer; 0: listening
    int pending = 0;    // bytes that are there
    char* buffer = nullptr;
    Ending ending = None;
    bool watched = true;  // the event manager has accepted the start
    int restarts = 0;     // starts behind a stop that is under way, whose end then leaves it listed
  };

  explicit WatchList(VrnAIO* watcher) : owner(watcher) {}

  bool contains(VrnFile* file) const { return get(file).has_value(); }
  int size() const;
  std::optional<Request> get(VrnFile* file) const;
  bool set(VrnFile* file, const Request& request);  // false: it is not in the list
  void erase(VrnFile* file);
  void clear();

  // Registers `file` with the event manager and puts it into the list, or throws.
  void start(VrnEvtMgr* evtmgr, VrnFile* file, const Request& request);

  // Stops the watch of `file` if it is in the list. True: it is not (any more). False: the stop is
  // under way, for the reason noted first.
  bool stop(VrnFile* file, Ending reason);
  // The watch of `file` has ended; returns what was wanted of it.
  std::optional<Request> ended(VrnFile* file);

  int stop_all();  // in ascending order of address; returns the number of stops under way

  // The file has ended, or its watch without aioCancelled(). Called with the registry lock held.
  void drop(VrnFile* file) { files.erase(file); }

 private:
  using Files = std::map<VrnFile*, Request>;

  bool insert(VrnFile* file, const Request& request);
  void set_unwatched(VrnFile* file);
  VrnFile* next(VrnFile* file) const;
  bool hold(VrnFile* file, Ending reason);
  void release(VrnFile* file, bool stopped);
  void unlist(VrnFile* file) const;

  VrnAIO* const owner;
  Files files;
};

}  // namespace vornfc
