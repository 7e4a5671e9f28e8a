#pragma once
// What is asked of the event manager on the dispatcher's thread, on its way to the next turn: a
// model of the registrar.

#include <algorithm>
#include <deque>
#include <iterator>

// Entry has a member `is_stop`.
template <class Entry>
struct Requests {
  // False: refused, as the loop is ending. Stops are kept until the loop has ended.
  bool submit(const Entry& entry) {
    if (open) {
      queue.push_back(entry);
    } else if (entry.is_stop && !ended) {
      late.push_back(entry);
    } else {
      return false;
    }
    return true;
  }

  template <class Condition>
  void withdraw_if(Condition condition) {
    for (auto* entries : {&queue, &late}) {
      entries->erase(std::remove_if(entries->begin(), entries->end(), condition), entries->end());
    }
  }

  // The loop has ended: what remains is carried out, except for starts.
  void end() {
    if (ended) return;
    open = false;
    ended = true;
    std::copy(late.begin(), late.end(), std::back_inserter(queue));
    late.clear();
  }

  std::deque<Entry> queue;
  std::deque<Entry> late;  // stops that came after the pipe was closed
  bool open = true;
  bool ended = false;
};
