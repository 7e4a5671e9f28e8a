#include "timer_queue.h"

#include "timer_impl.h"

#include <algorithm>

namespace vornfc {

namespace {
constexpr size_t Children = 4;
}

void TimerQueue::insert(ImplTimer* timer) {
  const timeval& expiry = timer->expiry;
  const Entry entry{std::int64_t{expiry.tv_sec} * 1000000 + expiry.tv_usec, insertions++, timer};
  heap.emplace_back();
  sift_up(heap.size() - 1, entry);
}

void TimerQueue::erase(const ImplTimer* timer) {
  const size_t position = timer->place;
  const Entry last = heap.back();
  heap.pop_back();
  if (position == heap.size()) return;
  if (position > 0 && last < heap[(position - 1) / Children]) {
    sift_up(position, last);
  } else {
    sift_down(position, last);
  }
}

std::vector<ImplTimer*> TimerQueue::in_order() const {
  std::vector<Entry> sorted = heap;
  std::sort(sorted.begin(), sorted.end());
  std::vector<ImplTimer*> timers;
  timers.reserve(sorted.size());
  for (const Entry& entry : sorted) timers.push_back(entry.timer);
  return timers;
}

void TimerQueue::put(size_t position, const Entry& entry) {
  heap[position] = entry;
  entry.timer->place = position;
}

// `entry` is to go to `position`, whose content may be overwritten, or above it.
void TimerQueue::sift_up(size_t position, const Entry& entry) {
  while (position > 0) {
    const size_t parent = (position - 1) / Children;
    if (!(entry < heap[parent])) break;
    put(position, heap[parent]);
    position = parent;
  }
  put(position, entry);
}

// The same, or below it.
void TimerQueue::sift_down(size_t position, const Entry& entry) {
  for (;;) {
    const size_t begin = position * Children + 1;
    if (begin >= heap.size()) break;
    const size_t end = std::min(begin + Children, heap.size());
    size_t least = begin;
    for (size_t child = begin + 1; child < end; ++child) {
      if (heap[child] < heap[least]) least = child;
    }
    if (!(heap[least] < entry)) break;
    put(position, heap[least]);
    position = least;
  }
  put(position, entry);
}

}  // namespace vornfc
