// Operations on a dozen descriptors, decoded from the input: watches are started and stopped in
// both directions, descriptors written to, filled, read, hung up, closed and opened again; on the
// dispatcher's thread between callbacks and inside them, and on another thread. A model goes over a
// table of its own, with the events that poll() returns for it, and says which callback comes next.
// Each input is run with poll() alone and with the kernel's queue, and gives the same callbacks.

#include "fuzzing.h"
#include "requests.h"
#include "vornfc/appshell.h"
#include "vornfc/evtmgr.h"
#include "vornfc/exception.h"
#include "vornfc/file.h"
#include "vornfc/timer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using vornfc::VrnAIO;
using vornfc::VrnAppShell;
using vornfc::VrnEvtMgr;
using vornfc::VrnException;
using vornfc::VrnFile;

constexpr int FILES = 12;
constexpr int WATCHERS = 6;  // the first half of them for input
constexpr int REGISTRAR = -1;
constexpr int NOBODY = -1;
constexpr int MOST_TURNS = 400;

bool is_input(int watcher) {
  return watcher < WATCHERS / 2;
}

struct Event {
  enum Kind { None, Ready, Cancelled } kind = None;
  int file = 0;
  int watcher = 0;
  bool hangup = false;
  bool err = false;

  std::string text() const {
    if (kind == None) return "nothing";
    return (kind == Ready ? "ready " : "cancelled ") + std::to_string(file) + "/" +
           std::to_string(watcher) + (hangup ? " hangup" : "") + (err ? " err" : "");
  }
};

// ---- the model ----

class Model {
 public:
  using Poll = std::function<short(int file, short events)>;

  explicit Model(Poll events_of_file) : poll(std::move(events_of_file)) {}

  // The loop begins, after the watches that other threads have started by then.
  void begin() { table.push_back({REGISTRAR, ++registrations, {NOBODY, NOBODY}, 0}); }

  // The loop waits: `poll` has the events of each file, and the walk over them begins.
  void begin_walk() {
    heard_requests = false;
    for (Entry& entry : table) {
      entry.revents = entry.file == REGISTRAR ? short{POLLIN} : poll(entry.file, events_of(entry));
    }
    position = 0;
    in_entry = false;
    walking = true;
  }

  // The next callback; none: at the end of the walk.
  Event next() {
    Event event;
    while (walking) {
      if (pending.kind != Event::None) return std::exchange(pending, Event());
      if (in_entry || enter()) {
        if (step_calls(&event)) return event;
      } else if (heard_requests) {
        break;
      } else {
        begin_walk();  // the timer of the test is among the requests, so the loop waits once more
      }
    }
    walking = false;
    if (!dead) return {};
    requests.end();
    return carry_out();
  }

  // On the dispatcher's thread. The results are those of the calls.
  bool start(int file, int watcher) {
    return requests.submit({Request::Start, file, watcher, false});
  }
  bool stop(int file, int watcher, bool* throws) {
    if (requests.submit({Request::Stop, file, watcher, true})) return false;
    stop_at_once(file, watcher, throws);
    return true;
  }
  void stop_loop() { requests.submit({Request::End, REGISTRAR, NOBODY, false}); }

  // On another thread.
  bool start_at_once(int file, int watcher, bool* throws) {
    if (dead) return false;
    *throws = !insert(file, watcher);
    return true;
  }
  void stop_at_once(int file, int watcher, bool* throws) {
    requests.withdraw_if([=](const Request& r) { return r.file == file && r.watcher == watcher; });
    const int holder = holder_of(file, watcher);
    *throws = holder != NOBODY && holder != watcher;
    if (holder == watcher) remove(entry_of(file), slot_of(watcher));
  }

  // The file has ended, and is another one now.
  void renew(int file) {
    requests.withdraw_if([=](const Request& r) { return r.file == file; });
    for (const int slot : {0, 1}) {
      Entry* const entry = entry_of(file);
      if (entry && entry->watchers[slot] != NOBODY) remove(entry, slot);
    }
    closed[file] = false;
  }

  // The callback that was told last has thrown.
  void threw(const Event& event) {
    Entry* const entry = current_entry();
    if (in_entry) leave();
    if (!entry) return;
    const int slot = slot_of(event.watcher);
    const int other = entry->watchers[1 - slot];
    remove(entry, slot);
    if (other != NOBODY) {
      remove(entry_of(event.file), 1 - slot);
      pending = {Event::Cancelled, event.file, other, true, true};
    }
    closed[event.file] = true;
  }

  bool dead = false;
  bool closed[FILES] = {};  // since its watcher threw

 private:
  struct Entry {
    int file;
    unsigned number;  // of the registration
    int watchers[2];  // for input and output
    short revents;
  };
  struct Request {
    enum Type { Start, Stop, End } type;
    int file, watcher;
    bool is_stop;
  };
  enum Step { Output, Input, FirstEnd, SecondEnd };

  static int slot_of(int watcher) { return is_input(watcher) ? 0 : 1; }
  static short mask_of(int slot) { return slot == 0 ? POLLIN | POLLPRI : POLLOUT; }

  static short events_of(const Entry& entry) {
    int events = 0;
    for (const int slot : {0, 1}) events |= entry.watchers[slot] != NOBODY ? mask_of(slot) : 0;
    return static_cast<short>(events);
  }

  Entry* entry_of(int file) {
    const auto it = std::find_if(table.begin(), table.end(),
                                 [file](const Entry& entry) { return entry.file == file; });
    return it == table.end() ? nullptr : &*it;
  }

  // Null when the registration that the walk has entered has ended.
  Entry* current_entry() {
    Entry* const entry = entry_of(current.file);
    return entry && entry->number == current.number ? entry : nullptr;
  }

  int holder_of(int file, int watcher) {
    const Entry* const entry = entry_of(file);
    return entry ? entry->watchers[slot_of(watcher)] : NOBODY;
  }

  bool insert(int file, int watcher) {
    if (closed[file] || holder_of(file, watcher) != NOBODY) return false;
    if (!entry_of(file)) table.push_back({file, ++registrations, {NOBODY, NOBODY}, 0});
    entry_of(file)->watchers[slot_of(watcher)] = watcher;
    return true;
  }

  // The last entry takes the place of one that goes.
  void remove(Entry* entry, int slot) {
    entry->watchers[slot] = NOBODY;
    entry->revents = static_cast<short>(entry->revents & ~mask_of(slot));
    if (events_of(*entry) != 0) return;
    *entry = table.back();
    table.pop_back();
  }

  bool enter() {
    while (position < table.size() && table[position].revents == 0) ++position;
    if (position >= table.size()) return false;
    in_entry = true;
    current = table[position];
    step = current.file == REGISTRAR ? Input : Output;
    return true;
  }

  void leave() {
    in_entry = false;
    ++position;
  }

  // True: somebody is called.
  bool step_calls(Event* event) {
    if (current.file == REGISTRAR) return registrar_calls(event);
    switch (step) {
      case Output: step = Input; return (current.revents & POLLOUT) != 0 && ready(1, event);
      case Input:
        if (Entry* const entry = current_entry()) {
          current.revents = entry->revents;
          step = FirstEnd;
          if ((current.revents & (POLLIN | POLLPRI)) == 0) return false;
        }
        leave();
        return ready(0, event);
      case FirstEnd: step = SecondEnd; return end(0, event);
      case SecondEnd: leave(); return end(1, event);
    }
    return false;
  }

  bool registrar_calls(Event* event) {
    heard_requests = true;
    *event = carry_out();
    if (event->kind != Event::None) return true;
    if (!requests.open) {
      dead = true;
      remove(entry_of(REGISTRAR), 0);
    }
    leave();
    return false;
  }

  bool ready(int slot, Event* event) {
    const Entry* const entry = current_entry();
    if (!entry || entry->watchers[slot] == NOBODY) return false;
    *event = {Event::Ready, entry->file, entry->watchers[slot], false, false};
    return true;
  }

  bool end(int slot, Event* event) {
    Entry* const entry = current_entry();
    if ((current.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0) return false;
    if (!entry || entry->watchers[slot] == NOBODY) return false;
    const bool err = (current.revents & (POLLERR | POLLNVAL)) != 0;
    *event = {Event::Cancelled, entry->file, entry->watchers[slot], true, err};
    remove(entry, slot);
    return true;
  }

  // Up to the next callback.
  Event carry_out() {
    while (!requests.queue.empty()) {
      const Request request = requests.queue.front();
      requests.queue.pop_front();
      if (request.type == Request::End) {
        requests.open = false;
      } else if (request.type == Request::Start) {
        if (!dead) insert(request.file, request.watcher);
      } else if (holder_of(request.file, request.watcher) == request.watcher) {
        remove(entry_of(request.file), slot_of(request.watcher));
        return {Event::Cancelled, request.file, request.watcher, false, false};
      }
    }
    return {};
  }

  const Poll poll;
  std::vector<Entry> table;
  unsigned registrations = 0;
  Requests<Request> requests;

  bool walking = false;
  bool heard_requests = false;  // in this walk
  std::size_t position = 0;
  bool in_entry = false;
  Entry current{};  // a copy of what the walk is in
  Step step = Output;
  Event pending;  // comes before what the walk finds next
};

// ---- the library, driven by the input ----

class Run {
 public:
  explicit Run(Input an_input)
      : input(an_input),
        turn_timer(this),
        model([this](int file, short asked) { return events_of(file, asked); }) {
    mgr = VrnAppShell::evtmgr = VrnEvtMgr::instance(0);
    for (int i = 0; i < WATCHERS; ++i) watchers[i] = std::make_unique<Watcher>(this, i);
    for (Channel& channel : channels) open(&channel);
  }

  // Returns what has happened.
  std::string go() {
    operate(8, true);
    model.begin();
    turn_timer.startTimer(0, 0, 0, 0);
    model.begin_walk();
    mgr->startDispatcher();
    expect(Event());
    require(model.dead, "the loop has ended too early");
    if (input.chance(2)) end_objects();
    VrnEvtMgr::destroy();
    end_objects();
    return story;
  }

 private:
  struct Watcher : VrnAIO {
    Watcher(Run* a_run, int an_index)
        : VrnAIO(is_input(an_index), "w"), run(a_run), index(an_index) {}
    void aioReady(VrnFile* file) override {
      run->ready({Event::Ready, run->index_of(file), index, false, false});
    }
    void aioCancelled(VrnFile* file, bool hangup, bool err) override {
      run->cancelled({Event::Cancelled, run->index_of(file), index, hangup, err});
    }
    Run* const run;
    const int index;
  };

  // Fires once in each turn.
  struct TurnTimer : vornfc::VrnTimer {
    explicit TurnTimer(Run* a_run) : VrnTimer("turn"), run(a_run) {}
    void timerExpired() override { run->turn(); }
    void timerStopped() override {}
    Run* const run;
  };

  struct Channel {
    std::unique_ptr<VrnFile> file;
    int peer = -1;
  };

  void turn() {
    expect(Event());
    operate(6, true);
    if (input.empty() || ++turns == MOST_TURNS) {
      model.stop_loop();
      mgr->stopDispatcher();
    }
    turn_timer.startTimer(0, 0, 0, 0);
    model.begin_walk();
  }

  short events_of(int file, short asked) const {
    pollfd entry{channels[file].file->fd, asked, 0};
    int count;
    do {
      count = poll(&entry, 1, 0);
    } while (count == -1 && errno == EINTR);  // the fuzzer's own alarm
    require(count != -1, "poll() failed");
    return entry.revents;
  }

  void expect(const Event& event) {
    const Event expected = model.next();
    require(event.text() == expected.text(), "%s instead of %s, after%s", event.text().c_str(),
            expected.text().c_str(), story.c_str());
    if (event.kind != Event::None) story += " " + event.text() + ",";
  }

  void ready(const Event& event) {
    expect(event);
    const unsigned reaction = input.below(16);
    const int fd = channels[event.file].file->fd;
    char buffer[4096];
    if (is_input(event.watcher) && reaction < 12) {
      (void)!read(fd, buffer, reaction < 8 ? sizeof buffer : reaction - 7);
    }
    if (!is_input(event.watcher) && reaction < 8) stop(event.file, event.watcher);
    operate(2, false);
    if (reaction != 15) return;
    model.threw(event);
    throw std::string("by chance");
  }

  void cancelled(const Event& event) {
    expect(event);
    operate(2, false);
    if (input.chance(16)) throw std::string("by chance");
  }

  // Other threads only come in between the callbacks of watchers: a stop, or the end of a file,
  // would wait for the end of a callback.
  void operate(unsigned at_most, bool others_too) {
    for (unsigned i = input.below(at_most + 1); i > 0; --i) operate_once(others_too);
  }

  void operate_once(bool others_too) {
    const unsigned operation = input.below(16);
    const int index = static_cast<int>(input.below(FILES));
    Channel& channel = channels[index];
    switch (operation) {
      case 0:
      case 1:
      case 2: return start(index, some_watcher());
      case 3:
      case 4: return stop(index, some_watcher());
      case 5: return others_too ? elsewhere(index, some_watcher()) : void();
      case 6:
      case 7:
      case 8: return write_to(channel.peer, input.below(8) * 100 + 1);
      case 9: return read_from(channel.peer);
      case 10: return model.closed[index] ? void() : fill(channel.file->fd);
      case 11: return hang_up(&channel);
      case 12: shutdown(channel.peer, SHUT_WR); return;
      case 13: model.renew(index); return open(&channel);
      case 14: return check_misuse(index);
      default: return input.chance(8) ? stop_loop() : void();
    }
  }

  int some_watcher() { return static_cast<int>(input.below(WATCHERS)); }

  void start(int file, int watcher) {
    const bool expected = model.start(file, watcher);
    require(mgr->startAIO(channels[file].file.get(), watchers[watcher].get()) == expected,
            "startAIO(%d, %d): not %d", file, watcher, expected);
  }

  void stop(int file, int watcher) {
    bool throws = false;
    const bool expected = model.stop(file, watcher, &throws);
    const bool thrown = throws_3([&] {
      require(mgr->stopAIO(channels[file].file.get(), watchers[watcher].get()) == expected,
              "stopAIO(%d, %d): not %d", file, watcher, expected);
    });
    require(thrown == throws, "stopAIO(%d, %d) throws: not %d", file, watcher, throws);
  }

  void elsewhere(int file, int watcher) {
    bool throws = false;
    bool thrown = false;
    VrnFile* const target = channels[file].file.get();
    VrnAIO* const aio = watchers[watcher].get();
    if (input.chance(2)) {
      const bool expected = model.start_at_once(file, watcher, &throws);
      std::thread([&] {
        thrown = throws_3([&] { require(mgr->startAIO(target, aio) == expected, "startAIO()"); });
      }).join();
    } else {
      model.stop_at_once(file, watcher, &throws);
      std::thread([&] {
        thrown = throws_3([&] { require(mgr->stopAIO(target, aio), "stopAIO()"); });
      }).join();
    }
    require(thrown == throws, "watcher %d of %d, on another thread: not %d", watcher, file, throws);
  }

  template <class Call>
  static bool throws_3(Call call) {
    try {
      call();
      return false;
    } catch (const VrnException& e) {
      require(e.err() == 3, "code %d", e.err());
      return true;
    }
  }

  void check_misuse(int index) {
    VrnFile unassigned;
    VrnFile* const file = channels[index].file.get();
    require(throws_3([&] { mgr->startAIO(&unassigned, watchers[0].get()); }), "no descriptor");
    require(throws_3([&] { mgr->startAIO(file, nullptr); }), "no watcher");
    require(throws_3([&] { mgr->stopAIO(nullptr, watchers[0].get()); }), "no file");
    require(mgr->stopAIO(&unassigned, watchers[0].get()), "nothing to stop");
  }

  void stop_loop() {
    model.stop_loop();
    mgr->stopDispatcher();
  }

  // ---- descriptors ----

  void open(Channel* channel) {
    channel->file.reset();
    hang_up(channel);
    int ends[2] = {-1, -1};
    switch (input.below(4)) {
      case 0: require(pipe(ends) == 0, "no pipe"); break;
      case 1:
        require(pipe(ends) == 0, "no pipe");
        std::swap(ends[0], ends[1]);
        break;
      case 2: ends[0] = memfd_create("watched", 0); break;  // always ready
      default: {
        require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "no sockets");
        const int small = 4608;
        for (const int end : ends) setsockopt(end, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
      }
    }
    channel->peer = ends[1];
    if (ends[1] != -1) fcntl(ends[1], F_SETFL, O_NONBLOCK);
    fcntl(ends[0], F_SETPIPE_SZ, 4096);  // fails for what is no pipe
    channel->file = std::make_unique<VrnFile>();
    channel->file->assign(ends[0], "f", true);
    channel->file->setBlockingMode(false);
  }

  static void hang_up(Channel* channel) {
    if (channel->peer != -1) close(channel->peer);
    channel->peer = -1;
  }

  static void write_to(int fd, std::size_t count) {
    const std::string bytes(count, 'x');
    (void)!write(fd, bytes.data(), bytes.size());
  }

  static void read_from(int fd) {
    char buffer[8192];
    (void)!read(fd, buffer, sizeof buffer);
  }

  static void fill(int fd) {
    const std::string bytes(1024, 'x');
    for (int i = 0; i < 16 && write(fd, bytes.data(), bytes.size()) > 0; ++i) {
    }
  }

  int index_of(const VrnFile* file) const {
    for (int i = 0; i < FILES; ++i) {
      if (channels[i].file.get() == file) return i;
    }
    require(false, "a callback names a file that is gone");
    return -1;
  }

  void end_objects() {
    for (Channel& channel : channels) {
      channel.file.reset();
      hang_up(&channel);
    }
    for (auto& watcher : watchers) watcher.reset();
  }

  Input input;
  VrnEvtMgr* mgr;
  TurnTimer turn_timer;
  Model model;
  std::unique_ptr<Watcher> watchers[WATCHERS];
  Channel channels[FILES];
  std::string story;
  int turns = 0;
};

std::string story_of(const Input& input, const char* setting, const char* value) {
  unsetenv("VORN_EM_POLLONLY");
  unsetenv("VORN_EM_POLLMAX");
  unsetenv("VORN_EM_THROWTASKS");
  setenv(setting, value, 1);
  return Run(input).go();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool prepared = [] {
    signal(SIGPIPE, SIG_IGN);
    drop_log_lines();
    return true;
  }();
  require(prepared, "not prepared");
  const Input input(data, size);
  const std::string with_poll = story_of(input, "VORN_EM_POLLONLY", "y");
  const std::string with_queue = story_of(input, "VORN_EM_POLLMAX", "0");
  require(with_poll == with_queue, "%s\nwith the queue:%s", with_poll.c_str(), with_queue.c_str());
  return 0;
}
