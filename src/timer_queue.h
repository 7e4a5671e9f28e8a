#pragma once
// The timers that are set, by expiry.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vornfc {

struct ImplTimer;

// Timers with an equal expiry leave in the order in which they came. A heap of four children a
// node, whose entries hold the key: an insertion or removal touches a few cache lines a level, one
// of them in the timer that moves, and a queue that has been as long before allocates nothing. Each
// timer knows its position, so one among many is found at once.
class TimerQueue {
 public:
  void insert(ImplTimer* timer);
  void erase(const ImplTimer* timer);  // it is in the queue

  bool empty() const { return heap.empty(); }
  size_t size() const { return heap.size(); }
  ImplTimer* first() const { return heap.front().timer; }
  std::vector<ImplTimer*> in_order() const;

 private:
  struct Entry {
    bool operator<(const Entry& other) const {
      return expiry != other.expiry ? expiry < other.expiry : number < other.number;
    }
    std::int64_t expiry;   // microseconds
    std::uint64_t number;  // of the insertion
    ImplTimer* timer;
  };

  void put(size_t position, const Entry& entry);
  void sift_up(size_t position, const Entry& entry);
  void sift_down(size_t position, const Entry& entry);

  std::vector<Entry> heap;
  std::uint64_t insertions = 0;
};

}  // namespace vornfc
