#include "ready_wait.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>

namespace vornfc {

namespace {

using std::chrono::steady_clock;

constexpr long DefaultMostPolled = 64;
constexpr unsigned IdleTurns = 8;         // before a descriptor is handed to the queue
constexpr size_t ManyReady = 32;          // in one turn: nothing is handed over
constexpr unsigned HotTurns = 64;         // in a row with an event before it goes back to poll()
constexpr unsigned TurnsWithoutTry = 16;  // after the queue was asked first in vain
constexpr int CheckInterval = 1000;       // milliseconds

static_assert(EPOLLIN == POLLIN && EPOLLPRI == POLLPRI && EPOLLOUT == POLLOUT &&
                  EPOLLERR == POLLERR && EPOLLHUP == POLLHUP,
              "events of the queue are those of poll()");

size_t most_polled_setting() {
  const char* const only = getenv("VORN_EM_POLLONLY");
  if (only && strcasecmp(only, "y") == 0) return SIZE_MAX;
  const char* const most = getenv("VORN_EM_POLLMAX");
  return static_cast<size_t>(std::max(0L, most ? strtol(most, nullptr, 10) : DefaultMostPolled));
}

long milliseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// Rounded up, as poll() does: never too early. 0: past.
int milliseconds_until(steady_clock::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
  return static_cast<int>(std::max<long>(0, left.count()));
}

}  // namespace

// Without a threshold everything is queued as soon as it may be, so that tests see it.
ReadyWait::ReadyWait()
    : most_polled(most_polled_setting()), idle_turns(most_polled == 0 ? 1 : IdleTurns) {}

ReadyWait::~ReadyWait() {
  if (queue != -1) close(queue);
}

void ReadyWait::assign(const std::vector<pollfd>& entries, const std::vector<unsigned>& serials) {
  table = entries;
  ready_positions.clear();
  if (table.size() <= most_polled / 2) close_queue();
  for (size_t i = 0; i < table.size(); ++i) {
    const int fd = table[i].fd;
    table[i].revents = 0;
    if (static_cast<size_t>(fd) >= slots.size()) slots.resize(2 * static_cast<size_t>(fd) + 1);
    Slot& slot = slots[static_cast<size_t>(fd)];
    if (slot.queued && (slot.serial != serials[i] || slot.events != table[i].events)) {
      dequeue(fd, &slot);
    }
    if (slot.serial != serials[i]) {
      slot = Slot();
      slot.serial = serials[i];
      slot.last_turn = turn;
    }
    slot.position = i;
  }
  list_busy();
}

void ReadyWait::list_busy() {
  busy.clear();
  busy_positions.clear();
  for (size_t i = 0; i < table.size(); ++i) {
    if (slots[static_cast<size_t>(table[i].fd)].queued) continue;
    busy.push_back({table[i].fd, table[i].events, 0});
    busy_positions.push_back(i);
  }
  mixed = queued_count > 0;
  reports.resize(queued_count);
}

// Where nothing is busy the queue alone knows who is ready, so in a lively time it is asked first:
// most often poll() has nothing to wait for.
bool ReadyWait::look() {
  if (mixed) {  // poll() on the table does it itself, or the loop ends
    for (const size_t position : ready_positions) table[position].revents = 0;
  }
  ready_positions.clear();
  reported = 0;
  checked.clear();
  any_hot = false;
  ++turn;
  const bool not_yet = static_cast<int>(turn - next_try) < 0;
  if (!mixed || !busy.empty() || not_yet || is_check_due(milliseconds())) return false;
  if (take_from_queue()) return true;
  next_try = turn + TurnsWithoutTry;
  return false;
}

bool ReadyWait::poll(int timeout) {
  return mixed ? mixed_poll(timeout) : plain_poll(timeout);
}

bool ReadyWait::plain_poll(int timeout) {
  int count = ::poll(table.data(), table.size(), timeout);
  if (count == -1) return false;
  const pollfd* const entries = table.data();
  const size_t size = table.size();
  for (size_t i = 0; count > 0 && i < size; ++i) {
    if (entries[i].revents == 0) continue;
    ready_positions.push_back(i);
    --count;
  }
  return true;
}

// True: it reports some. The application may have closed the queue's number, as any number: what
// was in the queue is then busy from the end of the turn on.
bool ReadyWait::take_from_queue() {
  const int taken = epoll_wait(queue, reports.data(), static_cast<int>(reports.size()), 0);
  reported = static_cast<size_t>(std::max(taken, 0));
  return reported > 0;
}

bool ReadyWait::is_check_due(long time) const {
  return time - last_check >= CheckInterval;
}

// Once a second, and `now` in any case.
void ReadyWait::check_all(bool now) {
  const long time = milliseconds();
  if (!now && !is_check_due(time)) return;
  last_check = time;
  checked = table;
  if (::poll(checked.data(), checked.size(), 0) <= 0) checked.clear();
}

bool ReadyWait::mixed_poll(int timeout) {
  busy.push_back({queue, POLLIN, 0});
  int count;
  // Each part takes a little longer than it should: the end is that of a clock, not of a sum.
  const auto end = steady_clock::now() + std::chrono::milliseconds(timeout);
  for (int left = timeout;;) {
    const bool in_parts = left < 0 || left > CheckInterval;
    count = ::poll(busy.data(), busy.size(), in_parts ? CheckInterval : left);
    if (count == -1) break;
    check_all(count == 0 && in_parts);
    if (count > 0 || !checked.empty() || !in_parts) break;
    if (left > 0) left = std::min(left - CheckInterval, milliseconds_until(end));
  }
  const bool queue_ready = count > 0 && busy.back().revents != 0;
  busy.pop_back();
  if (queue_ready) take_from_queue();  // all that are ready at once, as poll() tells of all
  return count != -1;
}

void ReadyWait::collect() {
  if (!mixed) return;
  for (size_t i = 0; i < busy.size(); ++i) {
    if (busy[i].revents == 0) continue;
    add_ready(busy_positions[i], busy[i].revents);
    slots[static_cast<size_t>(busy[i].fd)].last_turn = turn;
  }
  for (size_t i = 0; i < reported; ++i) add_reported(reports[i]);
  // What the queue does not tell: a number that has been closed, or given to another file.
  for (size_t i = 0; i < checked.size(); ++i) {
    Slot& slot = slots[static_cast<size_t>(table[i].fd)];
    if (checked[i].revents == 0 || !slot.queued || table[i].revents != 0) continue;
    add_ready(i, checked[i].revents);
    slot.last_turn = turn;
    slot.hot = HotTurns;
    any_hot = true;
  }
  // As a rule they are in order already.
  if (!std::is_sorted(ready_positions.begin(), ready_positions.end())) {
    std::sort(ready_positions.begin(), ready_positions.end());
  }
}

void ReadyWait::add_ready(size_t position, short events) {
  table[position].revents = events;
  ready_positions.push_back(position);
}

void ReadyWait::add_reported(const epoll_event& report) {
  const auto fd = static_cast<size_t>(report.data.u64 & UINT32_MAX);
  Slot& slot = slots[fd];
  // Stopped since, or left over from a registration that could not be taken out.
  if (!slot.queued || slot.serial != report.data.u64 >> 32) return;
  add_ready(slot.position, static_cast<short>(report.events));
  slot.hot = slot.last_turn + 1 == turn ? static_cast<unsigned short>(slot.hot + 1) : 1;
  slot.last_turn = turn;
  any_hot = any_hot || slot.hot >= HotTurns;
}

void ReadyWait::settle() {
  if (table.size() <= most_polled && !mixed) return;
  if (stale) close_queue();
  if (!mixed) {
    for (const size_t position : ready_positions) {
      slots[static_cast<size_t>(table[position].fd)].last_turn = turn;
    }
  }
  if (any_hot) send_back_hot();
  // Not in every turn: to look at each of many busy descriptors costs more than to find it out
  // late. And not while many are ready at once, of whom poll() tells for less than the queue does.
  const bool due = table.size() > most_polled && turn - last_look >= idle_turns &&
                   ready_positions.size() <= ManyReady;
  const bool changed = due && enqueue_idle();
  if (changed || busy.size() + queued_count != table.size()) list_busy();
}

// Ready in one turn after the other: poll() tells of them for less.
void ReadyWait::send_back_hot() {
  for (const size_t position : ready_positions) {
    Slot& slot = slots[static_cast<size_t>(table[position].fd)];
    if (slot.queued && slot.hot >= HotTurns) dequeue(table[position].fd, &slot);
  }
}

// True: some were handed over.
bool ReadyWait::enqueue_idle() {
  last_look = turn;
  bool any = false;
  for (const size_t position : busy_positions) {
    const pollfd& entry = table[position];
    Slot& slot = slots[static_cast<size_t>(entry.fd)];
    if (slot.queued || slot.refused || turn - slot.last_turn < idle_turns) continue;
    any = enqueue(entry.fd, entry.events, &slot) || any;
  }
  return any;
}

bool ReadyWait::enqueue(int fd, short events, Slot* slot) {
  slot->last_turn = turn;  // the next try, if this one fails, is some turns off
  if (queue == -1) queue = epoll_create1(EPOLL_CLOEXEC);
  if (queue == -1) return false;
  epoll_event event{};
  event.events = static_cast<unsigned>(events);
  event.data.u64 = std::uint64_t{slot->serial} << 32 | static_cast<unsigned>(fd);
  if (epoll_ctl(queue, EPOLL_CTL_ADD, fd, &event) == -1) {
    slot->refused = errno == EPERM;  // a regular file, for example
    return false;
  }
  slot->queued = true;
  slot->hot = 0;
  slot->events = events;
  ++queued_count;
  return true;
}

// Where the number is another file's by now, or nobody's, the queue may hold the former one still.
void ReadyWait::dequeue(int fd, Slot* slot) {
  epoll_event event{};
  if (epoll_ctl(queue, EPOLL_CTL_DEL, fd, &event) == -1) stale = true;
  slot->queued = false;
  --queued_count;
}

// Everything is busy again until it has been idle.
void ReadyWait::close_queue() {
  if (queue != -1) close(queue);
  queue = -1;
  queued_count = 0;
  stale = false;
  for (Slot& slot : slots) slot.queued = false;
}

void ReadyWait::forget(int fd) {
  if (static_cast<size_t>(fd) >= slots.size()) return;
  Slot& slot = slots[static_cast<size_t>(fd)];
  if (slot.queued) dequeue(fd, &slot);
}

void ReadyWait::forked() {
  close_queue();
  list_busy();
}

}  // namespace vornfc
