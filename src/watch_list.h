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

  // Replaces the request of a file. False: it is not in the list.
  bool request(VrnFile* file, int bytes, char* buffer);
  void advance(VrnFile* file, int pending);  // so many bytes of the request are there now

  // Registers `file` with the event manager and puts it into the list, or throws.
  void start(VrnEvtMgr* evtmgr, VrnFile* file, const Request& request);

  // Stops the watch of `file` if it is in the list. True: it is not (any more). False: the stop is
  // under way, for the reason noted first.
  bool stop(VrnFile* file, Ending reason);
  int stop_all();  // in ascending order of address; returns the number of stops under way
  void clear();

  // For aioCancelled(): takes `file` out of the list; returns what was wanted of it.
  std::optional<Request> ended(VrnFile* file);

  // For the event manager, with the registry lock held. The watch of `file` ends here and now, and
  // ended() follows on the dispatcher thread: a start in between is of the next watch. True: it
  // stays listed for a start that is on its way.
  bool watch_ended(VrnFile* file);

  // The same for a file that ends, or whose watch does without aioCancelled().
  void drop(VrnFile* file) { files.erase(file); }

 private:
  enum Entry { New, Present, Restarted };

  Entry insert(VrnFile* file, const Request& request);
  void take_back(VrnFile* file, Entry entry);
  std::optional<Request> remove(VrnFile* file);
  void not_ending(VrnFile* file, Ending before);
  void set_unwatched(VrnFile* file);
  VrnFile* next(VrnFile* file) const;
  bool hold(VrnFile* file, Ending reason);
  void release(VrnFile* file, bool stopped);
  void unlist(VrnFile* file) const;

  VrnAIO* const owner;
  std::map<VrnFile*, Request> files;
  VrnFile* last_file = nullptr;  // whose watch has ended, until ended() takes what is noted here
  std::optional<Request> last_request;
};

}  // namespace vornfc
