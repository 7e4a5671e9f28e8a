#pragma once
// The wait of the event manager for its descriptors.

#include <poll.h>
#include <sys/epoll.h>

#include <chrono>
#include <cstddef>
#include <vector>

namespace vornfc {

// Waits for the descriptors of a table as poll() does: with the same results, whatever it takes.
//
// Up to a few dozen descriptors it calls poll() on just the table. poll() looks at every descriptor
// in every turn, though. So beyond that, descriptors that stay idle for some turns are handed to
// the kernel's readiness queue, and the queue's one descriptor is polled with the busy ones. A
// queued descriptor that is ready in one turn after the other goes back among the busy.
//
// The queue knows open files, poll() knows numbers. They differ only where a number is closed, or
// given to another file, while it is watched: so all of the table is polled once a second too.
//
// Settings from the environment: VORN_EM_POLLONLY "y": plain poll() always; VORN_EM_POLLMAX: up to
// this many descriptors plain poll() is used (64; no number counts as 0, the queue takes all).
//
// Threads: the event manager calls look(), poll() and size() on the dispatcher thread, and all else
// with its registry lock held. Another thread only calls forget(), which touches nothing that these
// do.
class ReadyWait {
 public:
  ReadyWait();
  ~ReadyWait();
  ReadyWait(const ReadyWait&) = delete;
  ReadyWait& operator=(const ReadyWait&) = delete;

  // From now on these are waited for. `serials` tell a registration from a later one of its number.
  void assign(const std::vector<pollfd>& table, const std::vector<unsigned>& serials);

  // Begins a turn. True: descriptors are ready that a look at the queue has found, so nothing is to
  // be waited for. Does not wait itself.
  bool look();

  // After look() in vain: waits as poll() does. False: it failed, and `errno` tells why.
  bool poll(int timeout);

  // An entry that has returned events, and its position in the table.
  struct Ready {
    pollfd entry;
    size_t position;
  };

  // After look() or poll(): from now on ready(), an array of ready_count(), has them all, in
  // ascending order of position.
  void collect();
  const Ready* ready() const { return found.data(); }
  size_t ready_count() const { return found_count; }
  size_t size() const { return table.size(); }

  // After collect(), while the table is still that of the event manager: hands over what is idle.
  // Most turns have nothing to do for it.
  void settle() {
    if (mixed ? any_hot || stale || is_look_due() : table.size() > most_polled) rearrange();
  }

  // A registration has ended. Called before its descriptor is closed.
  void forget(int fd);

  void forked();  // in the child: the queue is the parent's

 private:
  // What is known of a descriptor number: little, since every event reads one from afar.
  struct Slot {
    unsigned serial = 0;
    unsigned position = 0;   // in the table
    unsigned last_turn = 0;  // with an event, at first that in which the number became known
    short queued = 0;        // the events that it is queued for; 0: it is not
    unsigned char hot = 0;   // turns in a row with an event from the queue
    bool refused = false;    // the queue does not take it
  };

  bool plain_poll(int timeout);
  bool mixed_poll(int timeout);
  bool take_from_queue();
  void check_all();
  void add(int fd, short events, short returned, size_t position) {
    Ready& next = found[found_count++];
    next.entry = {fd, events, returned};
    next.position = position;
  }
  void add_reported(const epoll_event& report);
  void add_checked();
  void put_in_order();
  bool is_look_due() const { return turn - last_look >= idle_turns; }
  void rearrange();
  void send_back_hot();
  void list_busy();
  bool enqueue_idle();
  bool enqueue(int fd, short events, Slot* slot);
  void dequeue(int fd, Slot* slot);
  void close_queue();

  const size_t most_polled;  // plain poll() up to here
  const unsigned idle_turns;
  std::vector<pollfd> table;
  std::vector<Ready> found;  // room for more than there can be, the first `found_count` are used
  size_t found_count = 0;
  std::vector<Slot> slots;  // by descriptor number

  bool mixed = false;        // the queue is in use
  std::vector<pollfd> busy;  // what poll() is then called on; the queue's own descriptor comes last
  std::vector<size_t> busy_positions;
  std::vector<epoll_event> reports;  // of the queue, the first `reported` of them
  size_t reported = 0;
  std::vector<pollfd> checked;  // all of the table, once a second; empty: not in this turn
  int queue = -1;
  size_t queued_count = 0;
  bool any_hot = false;  // there are descriptors that go back to poll()
  bool stale = false;  // a file could not be taken out of the queue: its number is not its any more
  unsigned turn = 0;
  unsigned last_look = 0;  // the turn of the last look at how long the busy have been idle
  unsigned next_try = 0;   // the turn from which on the queue is asked first
  std::chrono::nanoseconds next_check{0};
};

}  // namespace vornfc
