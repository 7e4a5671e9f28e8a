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
using namespace std::chrono_literals;

constexpr long DefaultMostPolled = 64;
constexpr unsigned IdleTurns = 8;         // before a descriptor is handed to the queue
constexpr size_t ManyReady = 32;          // in one turn: nothing is handed over
constexpr unsigned HotTurns = 64;         // in a row with an event before it goes back to poll()
constexpr unsigned TurnsWithoutTry = 16;  // after the queue was asked first in vain
constexpr std::chrono::nanoseconds CheckInterval = 1s;

static_assert(EPOLLIN == POLLIN && EPOLLPRI == POLLPRI && EPOLLOUT == POLLOUT &&
                  EPOLLERR == POLLERR && EPOLLHUP == POLLHUP,
              "events of the queue are those of poll()");

size_t most_polled_setting() {
  const char* const only = getenv("VORN_EM_POLLONLY");
  if (only && strcasecmp(only, "y") == 0) return SIZE_MAX;
  const char* const most = getenv("VORN_EM_POLLMAX");
  return static_cast<size_t>(std::max(0L, most ? strtol(most, nullptr, 10) : DefaultMostPolled));
}

// A clock that is read in every turn, so one that costs little.
std::chrono::nanoseconds coarse_time() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// For poll(). Rounded up, as it does itself: never too early. 0: past.
int milliseconds(std::chrono::nanoseconds time) {
  const auto whole = std::chrono::ceil<std::chrono::milliseconds>(time);
  return static_cast<int>(std::max<long>(0, whole.count()));
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
  if (table.size() <= most_polled / 2) close_queue();
  for (size_t i = 0; i < table.size(); ++i) {
    const int fd = table[i].fd;
    if (static_cast<size_t>(fd) >= slots.size()) slots.resize(2 * static_cast<size_t>(fd) + 1);
    Slot& slot = slots[static_cast<size_t>(fd)];
    if (slot.queued != 0 && (slot.serial != serials[i] || slot.queued != table[i].events)) {
      dequeue(fd, &slot);
    }
    if (slot.serial != serials[i]) {
      slot = Slot();
      slot.serial = serials[i];
      slot.last_turn = turn;
    }
    slot.position = static_cast<unsigned>(i);
  }
  list_busy();
}

void ReadyWait::list_busy() {
  busy.clear();
  busy_positions.clear();
  for (size_t i = 0; i < table.size(); ++i) {
    if (slots[static_cast<size_t>(table[i].fd)].queued != 0) continue;
    busy.push_back({table[i].fd, table[i].events, 0});
    busy_positions.push_back(i);
  }
  mixed = queued_count > 0;
  reports.resize(queued_count);
  found.resize(std::max(found.size(), table.size() + queued_count));
}

// Where nothing is busy the queue alone knows who is ready, so in a lively time it is asked first:
// most often poll() has nothing to wait for.
bool ReadyWait::look() {
  found_count = 0;
  ++turn;
  if (!mixed) return false;
  reported = 0;
  checked.clear();
  const bool not_yet = static_cast<int>(turn - next_try) < 0;
  if (!busy.empty() || not_yet || coarse_time() >= next_check) return false;
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
    add(entries[i].fd, entries[i].events, entries[i].revents, i);
    --count;
  }
  return true;
}

// True: it reports some. The application may have closed the queue's number, as any number: then it
// reports none, and what was in it is found by the looks at all.
bool ReadyWait::take_from_queue() {
  const int taken = epoll_wait(queue, reports.data(), static_cast<int>(reports.size()), 0);
  reported = static_cast<size_t>(std::max(taken, 0));
  return reported > 0;
}

void ReadyWait::check_all() {
  next_check = coarse_time() + CheckInterval;
  checked = table;
  int count;
  do {
    count = ::poll(checked.data(), checked.size(), 0);
  } while (count == -1 && errno == EINTR);  // the signal's wake ends the next wait
  if (count <= 0) checked.clear();
}

bool ReadyWait::mixed_poll(int timeout) {
  busy.push_back({queue, POLLIN, 0});
  int count;
  // Each part takes a little longer than it should: the end is that of a clock, not of a sum.
  const auto end = timeout > 0 ? steady_clock::now() + std::chrono::milliseconds(timeout)
                               : steady_clock::time_point();
  for (int left = timeout;;) {
    const int part = milliseconds(next_check - coarse_time());
    const bool in_parts = left < 0 || left > part;
    count = ::poll(busy.data(), busy.size(), in_parts ? part : left);
    if (count == -1) break;
    if (part == 0 || (in_parts && count == 0)) check_all();
    if (count > 0 || !checked.empty() || !in_parts) break;
    if (left > 0) left = std::min(left - part, milliseconds(end - steady_clock::now()));
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
    add(busy[i].fd, busy[i].events, busy[i].revents, busy_positions[i]);
    slots[static_cast<size_t>(busy[i].fd)].last_turn = turn;
  }
  for (size_t i = 0; i < reported; ++i) add_reported(reports[i]);
  if (!checked.empty()) add_checked();
  if (found_count > 1) put_in_order();
}

void ReadyWait::add_reported(const epoll_event& report) {
  const auto fd = static_cast<unsigned>(report.data.u64);
  Slot& slot = slots[fd];
  // Stopped since, or left over from a registration that could not be taken out.
  if (slot.queued == 0 || slot.serial != report.data.u64 >> 32) return;
  add(static_cast<int>(fd), slot.queued, static_cast<short>(report.events), slot.position);
  slot.hot = slot.last_turn + 1 == turn ? static_cast<unsigned char>(slot.hot + 1) : 1;
  slot.last_turn = turn;
  any_hot = any_hot || slot.hot >= HotTurns;
}

// What the queue does not tell: a number that has been closed, or given to another file.
void ReadyWait::add_checked() {
  for (size_t i = 0; i < checked.size(); ++i) {
    Slot& slot = slots[static_cast<size_t>(table[i].fd)];
    if (checked[i].revents == 0 || slot.queued == 0 || slot.last_turn == turn) continue;
    add(checked[i].fd, checked[i].events, checked[i].revents, i);
    slot.last_turn = turn;
    slot.hot = HotTurns;
    any_hot = true;
  }
}

void ReadyWait::put_in_order() {
  Ready* const end = found.data() + found_count;
  const auto before = [](const Ready& a, const Ready& b) { return a.position < b.position; };
  // As a rule they are in order already.
  if (!std::is_sorted(found.data(), end, before)) std::sort(found.data(), end, before);
}

void ReadyWait::rearrange() {
  if (stale) close_queue();
  if (!mixed) {
    for (size_t i = 0; i < found_count; ++i) {
      slots[static_cast<size_t>(found[i].entry.fd)].last_turn = turn;
    }
  }
  if (any_hot) send_back_hot();
  // Not in every turn: to look at each of many busy descriptors costs more than to find it out
  // late. And not while many are ready at once, of whom poll() tells for less than the queue does.
  const bool due = table.size() > most_polled && is_look_due() && found_count <= ManyReady;
  const bool changed = due && enqueue_idle();
  if (changed || busy.size() + queued_count != table.size()) list_busy();
}

// Ready in one turn after the other: poll() tells of them for less.
void ReadyWait::send_back_hot() {
  any_hot = false;
  for (size_t i = 0; i < found_count; ++i) {
    const int fd = found[i].entry.fd;
    Slot& slot = slots[static_cast<size_t>(fd)];
    if (slot.queued != 0 && slot.hot >= HotTurns) dequeue(fd, &slot);
  }
}

// True: some were handed over.
bool ReadyWait::enqueue_idle() {
  last_look = turn;
  bool any = false;
  for (const size_t position : busy_positions) {
    const pollfd& entry = table[position];
    Slot& slot = slots[static_cast<size_t>(entry.fd)];
    if (slot.queued != 0 || slot.refused || turn - slot.last_turn < idle_turns) continue;
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
  slot->queued = events;
  slot->hot = 0;
  ++queued_count;
  return true;
}

// Where the number is another file's by now, or nobody's, the queue may hold the former one still.
void ReadyWait::dequeue(int fd, Slot* slot) {
  epoll_event event{};
  if (epoll_ctl(queue, EPOLL_CTL_DEL, fd, &event) == -1) stale = true;
  slot->queued = 0;
  --queued_count;
}

// Everything is busy again until it has been idle.
void ReadyWait::close_queue() {
  if (queue != -1) close(queue);
  queue = -1;
  queued_count = 0;
  stale = false;
  for (Slot& slot : slots) slot.queued = 0;
}

void ReadyWait::forget(int fd) {
  if (static_cast<size_t>(fd) >= slots.size()) return;
  Slot& slot = slots[static_cast<size_t>(fd)];
  if (slot.queued != 0) dequeue(fd, &slot);
}

void ReadyWait::forked() {
  close_queue();
  list_busy();
}

}  // namespace vornfc
