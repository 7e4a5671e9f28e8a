#pragma once
// The wait of the event manager for its descriptors.

#include <poll.h>
#include <sys/epoll.h>

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
// Threads: the event manager calls look() and poll() on the dispatcher thread, and everything else
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

  // After look() or poll(): entries() has the returned events from now on, and ready() the
  // positions of those that have any, in ascending order.
  void collect();
  const std::vector<pollfd>& entries() const { return table; }
  const std::vector<size_t>& ready() const { return ready_positions; }

  // After collect(), while the table is still that of the event manager: hands over what is idle.
  void settle();

  // A registration has ended. Called before its descriptor is closed.
  void forget(int fd);

  void forked();  // in the child: the queue is the parent's

 private:
  // What is known of a descriptor number.
  struct Slot {
    unsigned serial = 0;
    bool queued = false;
    bool refused = false;    // the queue does not take it
    short events = 0;        // that it is queued for
    unsigned short hot = 0;  // turns in a row with an event from the queue
    unsigned last_turn = 0;  // with an event, at first that in which the number became known
    size_t position = 0;     // in the table
  };

  bool plain_poll(int timeout);
  bool mixed_poll(int timeout);
  bool take_from_queue();
  bool is_check_due(long time) const;
  void check_all(bool now);
  void add_ready(size_t position, short events);
  void send_back_hot();
  void add_reported(const epoll_event& report);
  void list_busy();
  bool enqueue_idle();
  bool enqueue(int fd, short events, Slot* slot);
  void dequeue(int fd, Slot* slot);
  void close_queue();

  const size_t most_polled;  // plain poll() up to here
  const unsigned idle_turns;
  std::vector<pollfd> table;
  std::vector<size_t> ready_positions;
  std::vector<Slot> slots;  // by descriptor number

  bool mixed = false;        // the queue is in use
  std::vector<pollfd> busy;  // what poll() is then called on; the queue's own descriptor comes last
  std::vector<size_t> busy_positions;
  std::vector<epoll_event> reports;  // of the queue, the first `reported` of them
  size_t reported = 0;
  std::vector<pollfd> checked;  // all of the table, once a second; empty: not in this turn
  int queue = -1;
  size_t queued_count = 0;
  bool any_hot = false;  // found by this turn: descriptors that go back to poll()
  bool stale = false;  // a file could not be taken out of the queue: its number is not its any more
  unsigned turn = 0;
  unsigned last_look = 0;  // the turn of the last look at how long the busy have been idle
  unsigned next_try = 0;   // the turn from which on the queue is asked first
  long last_check = 0;     // milliseconds
};

}  // namespace vornfc
