// Operations on a reader and on writers over four connections, decoded from the input: requests of
// any size, listening, stops, writes, ends of writers; while the peers send, receive, end one
// direction or hang up; on the dispatcher's thread, inside callbacks, and on another thread. A
// model of the streams of bytes is held against them: what arrives is what was sent, in order and
// without a gap; what is asked of reader and writers accounts for every byte; a removal has the
// flags that its cause has; and in the end, nothing that could be delivered is left.

#include "fuzzing.h"
#include "vornfc/appshell.h"
#include "vornfc/async_rdr.h"
#include "vornfc/asyncw.h"
#include "vornfc/evtmgr.h"
#include "vornfc/file.h"
#include "vornfc/timer.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <utility>

namespace {

using vornfc::VrnAppShell;
using vornfc::VrnAsyncReader;
using vornfc::VrnAsyncWriter;
using vornfc::VrnEvtMgr;
using vornfc::VrnFile;

constexpr int CONNECTIONS = 4;
constexpr int BUFFERS = 2;
constexpr long MOST_QUEUED = 32768;
constexpr int MOST_TURNS = 300;
constexpr int LAST_TURNS = 60;  // more than it takes to deliver all that is queued
constexpr int HungUp = -1;

// The byte at a position of every stream.
char byte_at(long position) {
  return static_cast<char>((position * 131 + (position >> 8) * 7) & 0xff);
}

std::string bytes_at(long position, std::size_t count) {
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i) bytes += byte_at(position + static_cast<long>(i));
  return bytes;
}

void require_bytes(const char* bytes, long position, std::size_t count, const char* where) {
  for (std::size_t i = 0; i < count; ++i) {
    require(bytes[i] == byte_at(position + static_cast<long>(i)), "%s: another byte at %ld", where,
            position + static_cast<long>(i));
  }
}

long unread(int fd) {
  int count = 0;
  require(ioctl(fd, FIONREAD, &count) == 0, "FIONREAD failed");
  return count;
}

class Run {
 public:
  explicit Run(Input an_input) : input(an_input), reader(this), turn_timer(this) {
    const bool with_queue = input.chance(2);
    setenv("VORN_EM_POLLMAX", with_queue ? "0" : "32", 1);
    mgr = VrnAppShell::evtmgr = VrnEvtMgr::instance(0);
    for (Connection& connection : connections) open(&connection);
  }

  void go() {
    operate(8, true);
    turn_timer.startTimer(0, 0, 0, 0);
    mgr->startDispatcher();
    require(stopped, "the loop has ended too early");
    for (Connection& connection : connections) {
      require(!connection.stopping, "a stop is not confirmed after the loop");
    }
    require(reader.aioTerminate() == 0, "a stop after the loop is not complete");
    if (input.chance(2)) end_connections();
    VrnEvtMgr::destroy();
    end_connections();
    require(writers_alive == 0, "%d writers are not deleted", writers_alive);
  }

 private:
  struct Reader : VrnAsyncReader {
    explicit Reader(Run* a_run) : VrnAsyncReader("reader"), run(a_run) {}
    void aioRemoved(VrnFile* file, bool hangup, bool error) override {
      run->removed(run->connection_of(file), hangup, error);
    }
    void aioReceived(VrnFile* file, int bytes, char* buffer) override {
      run->received(run->connection_of(file), bytes, buffer);
    }
    void aioReadable(VrnFile* file) override { run->readable(run->connection_of(file)); }
    Run* const run;
  };

  struct Writer : VrnAsyncWriter {
    Writer(Run* a_run, VrnFile* a_file) : VrnAsyncWriter(a_file, false), run(a_run) {
      ++run->writers_alive;
    }
    ~Writer() override { --run->writers_alive; }
    Run* const run;
  };

  struct TurnTimer : vornfc::VrnTimer {
    explicit TurnTimer(Run* a_run) : VrnTimer("turn"), run(a_run) {}
    void timerExpired() override { run->turn(); }
    void timerStopped() override {}
    Run* const run;
  };

  struct Connection {
    std::unique_ptr<VrnFile> file;
    int peer = -1;
    bool broken = false;      // a callback threw, and the descriptor is closed
    bool peer_ended = false;  // it sends no more
    bool peer_deaf = false;   // it receives no more
    bool peer_lost = false;   // it has hung up over bytes that it has not read

    // From the peer to the reader.
    bool watched = false;
    bool stopping = false;
    int requested = 0;
    char* buffer = nullptr;
    std::unique_ptr<char[]> buffers[BUFFERS];
    long sent = 0;   // by the peer
    long taken = 0;  // of these: given to the application, or abandoned

    // From the writer to the peer.
    Writer* writer = nullptr;
    long accepted = 0;
    long arrived = 0;
    std::deque<long> ends;  // of the messages
    int error = 0;
  };

  // ---- callbacks ----

  void received(Connection* connection, int bytes, const char* buffer) {
    require(connection->watched, "bytes for a file that is not watched");
    require(bytes > 0 && bytes == connection->requested && buffer == connection->buffer,
            "%d bytes instead of %d", bytes, connection->requested);
    require_bytes(buffer, connection->taken, static_cast<std::size_t>(bytes), "reader");
    connection->taken += bytes;
    check(connection, false);
    operate(2, false);
    if (stopped || finishing || !input.chance(24)) return;
    connection->broken = true;
    connection->watched = connection->stopping = false;
    throw std::string("by chance");
  }

  // The reader's lock is held.
  void readable(Connection* connection) {
    require(connection->watched && connection->requested == 0, "it is not listened to");
    check(connection, true);
    char bytes[512];
    const std::size_t size = finishing ? sizeof bytes : input.below(255) * 2 + 1;
    const ssize_t count = read(connection->file->fd, bytes, size);
    if (count > 0) {
      require_bytes(bytes, connection->taken, static_cast<std::size_t>(count), "listener");
      connection->taken += count;
    } else {
      require(count == 0 || connection->peer_lost || errno == EAGAIN, "read() fails: %d", errno);
      if (count == 0 || errno != EAGAIN) stop(connection, true);
    }
  }

  void removed(Connection* connection, bool hangup, bool error) {
    require(connection->watched, "a file is removed that is not watched");
    if (!hangup && !error) {
      require(connection->stopping, "a stop that nobody has asked for");
    } else {
      require(connection->peer_ended, "hangup=%d, error=%d without a cause", hangup, error);
      require(!error || connection->peer_lost, "an error without a cause");
    }
    const bool at_end = hangup && !error && !connection->stopping;
    if (at_end) require(unread(connection->file->fd) == 0, "bytes are left at the end");
    leave(connection);
    operate(2, false);
  }

  // What an incomplete request has read is lost.
  void leave(Connection* connection) {
    const long read = connection->sent - unread(connection->file->fd) - connection->taken;
    require(read >= 0 && (read == 0 || read < connection->requested), "%ld bytes of %d", read,
            connection->requested);
    require_bytes(connection->buffer, connection->taken, static_cast<std::size_t>(read), "rest");
    connection->taken += read;
    connection->watched = connection->stopping = false;
  }

  void turn() {
    for (Connection& connection : connections) check(&connection, false);
    if (finishing) {
      finish();
    } else {
      operate(6, true);
      finishing = input.empty() || ++turns == MOST_TURNS;
    }
    turn_timer.startTimer(0, 0, 0, 0);
  }

  // All that can be delivered is delivered first.
  void finish() {
    if (stopped) return;
    for (Connection& connection : connections) {
      receive_at_peer(&connection);
      if (last_turns == 0 && connection.requested > 0 && connection.watched) {
        request(&connection, 2048, false);
      }
    }
    if (++last_turns < LAST_TURNS) return;
    for (Connection& connection : connections) check_delivered(&connection);
    const int left = reader.aioTerminate();
    require(left == reader.aioFiles(), "%d stops", left);
    for (Connection& connection : connections) {
      connection.stopping = connection.watched;
      if (connection.writer && input.chance(2)) destroy_writer(&connection);
    }
    stopped = true;
    mgr->stopDispatcher();
  }

  // ---- what always holds, and what holds in the end ----

  void check(Connection* connection, bool locked) {
    VrnFile* const file = connection->file.get();
    require(reader.aioFile(file, locked) == connection->watched, "watched: not %d",
            connection->watched);
    require(
        reader.requestedBytes(file, locked) == (connection->watched ? connection->requested : -1),
        "%d bytes are requested", connection->requested);
    check_writer(connection);
    if (connection->broken) return;
    const int pending = reader.pendingBytes(file, locked);
    if (!connection->watched) {
      require(pending == -1, "%d bytes are pending and nothing is watched", pending);
      return;
    }
    require(pending >= 0 && (pending < connection->requested || pending == 0),
            "%d of %d bytes are pending", pending, connection->requested);
    require(connection->taken + pending + unread(file->fd) == connection->sent,
            "%ld taken, %d pending, %ld unread of %ld", connection->taken, pending,
            unread(file->fd), connection->sent);
    require_bytes(connection->buffer, connection->taken, static_cast<std::size_t>(pending),
                  "pending");
  }

  void check_writer(Connection* connection) {
    const Writer* const writer = connection->writer;
    if (!writer) return;
    const int error = writer->error();
    // A write that failed is overtaken by the hang-up of what it was written to.
    require(connection->error == 0 || error == connection->error || error == HungUp,
            "error %d became %d", connection->error, error);
    connection->error = error;
    require(error == 0 || connection->peer_deaf || connection->broken, "error %d", error);
    if (error != 0) {
      require(writer->queuedBytes() == 0 && writer->queuedMsgs() == 0, "a failed writer's queue");
      return;
    }
    if (connection->peer_deaf || connection->broken) return;
    const long written = connection->arrived + unread(connection->peer);
    require(writer->queuedBytes() == connection->accepted - written, "%d bytes queued, %ld of %ld",
            writer->queuedBytes(), written, connection->accepted);
    while (!connection->ends.empty() && connection->ends.front() <= written) {
      connection->ends.pop_front();
    }
    require(writer->queuedMsgs() == static_cast<int>(connection->ends.size()),
            "%d messages instead of %zu", writer->queuedMsgs(), connection->ends.size());
  }

  void check_delivered(Connection* connection) {
    check(connection, false);
    require(!connection->stopping, "a stop is not confirmed");
    // A peer that only is deaf may have its room filled for ever.
    const bool settles = connection->peer == -1 || !connection->peer_deaf;
    if (connection->writer && connection->error == 0 && settles) {
      require(connection->writer->queuedBytes() == 0, "bytes are queued for ever");
    }
    const bool hears = !connection->broken && !connection->peer_deaf;
    if (hears && connection->error == 0) {
      require(connection->arrived == connection->accepted, "%ld of %ld bytes have arrived",
              connection->arrived, connection->accepted);
    }
    if (!connection->watched) return;
    require(!connection->peer_ended, "the end of the stream is not told");
    require(unread(connection->file->fd) == 0, "bytes are left unread");
  }

  // ---- operations ----

  void operate(unsigned at_most, bool others_too) {
    if (finishing || stopped) return;
    for (unsigned i = input.below(at_most + 1); i > 0; --i) operate_once(others_too);
  }

  void operate_once(bool others_too) {
    const unsigned operation = input.below(24);
    Connection* const connection = &connections[input.below(CONNECTIONS)];
    switch (operation) {
      case 0:
      case 1:
      case 2: request(connection, some_size(), false); break;
      case 3: request(connection, 0, false); break;
      case 4: stop(connection, false); break;
      case 5: terminate(); break;
      case 6: request(connection, some_size(), others_too); break;
      case 7: stop_elsewhere(connection, others_too); break;
      case 8:
      case 9:
      case 10: write(connection, some_size() * 8, false); break;
      case 11: write(connection, some_size() * 8, others_too); break;
      case 12: renew_writer(connection, false); break;
      case 13: renew_writer(connection, others_too); break;
      case 14: end_sending(connection); break;
      case 15: end_receiving(connection); break;
      case 16: hang_up(connection); break;
      case 17:
      case 18: receive_at_peer(connection); break;
      default: send_from_peer(connection, static_cast<std::size_t>(some_size())); break;
    }
    check(connection, false);
  }

  int some_size() {
    const unsigned size = input.byte();
    return static_cast<int>(size < 200 ? size % 20 + 1 : (size - 199) * 16);
  }

  template <class Call>
  static void call(bool elsewhere, Call function) {
    if (elsewhere) {
      std::thread(function).join();
    } else {
      function();
    }
  }

  void request(Connection* connection, int bytes, bool elsewhere) {
    if (connection->broken) return;
    VrnFile* const file = connection->file.get();
    if (connection->watched) connection->taken += reader.pendingBytes(file);  // abandoned
    auto& fresh = connection->buffers[input.below(BUFFERS)];
    fresh = std::make_unique<char[]>(static_cast<std::size_t>(bytes) + 1);
    connection->requested = bytes;
    connection->buffer = fresh.get();
    connection->watched = true;
    call(elsewhere, [&] {
      if (bytes == 0) return reader.aioListen(file);
      reader.aioRequest(file, bytes, connection->buffer);
    });
  }

  void stop(Connection* connection, bool locked) {
    const bool done = reader.aioStop(connection->file.get(), locked);
    require(done == !connection->watched, "aioStop(): %d", done);
    if (connection->watched) connection->stopping = true;
  }

  void stop_elsewhere(Connection* connection, bool elsewhere) {
    if (!elsewhere) return stop(connection, false);
    bool done = false;
    call(true, [&] { done = reader.aioStop(connection->file.get()); });
    require(done, "aioStop() on another thread is not complete");
    if (connection->watched) leave(connection);
  }

  void terminate() {
    int watched = 0;
    for (Connection& connection : connections) {
      watched += connection.watched ? 1 : 0;
      connection.stopping = connection.watched;
    }
    require(reader.aioFiles() == watched, "%d files instead of %d", reader.aioFiles(), watched);
    require(reader.aioTerminate() == watched, "another number of stops than %d", watched);
  }

  void write(Connection* connection, int count, bool elsewhere) {
    Writer* const writer = connection->writer;
    if (!writer || connection->accepted - connection->arrived > MOST_QUEUED) return;
    const std::string bytes = bytes_at(connection->accepted, static_cast<std::size_t>(count));
    int result = 0;
    call(elsewhere, [&] { result = writer->awrite(bytes.data(), count); });
    require(connection->error == 0 || result == connection->error, "awrite(): %d", result);
    if (result == 0) {
      connection->accepted += count;
      connection->ends.push_back(connection->accepted);
    }
    require(writer->error() == result, "awrite(): %d", result);
    require(writer->awrite(nullptr, 0) == result, "awrite() of nothing");
  }

  // What is queued is discarded; the stream goes on behind what has been written.
  void destroy_writer(Connection* connection, bool elsewhere = false) {
    check_writer(connection);
    Writer* const writer = std::exchange(connection->writer, nullptr);
    connection->accepted -= writer->queuedBytes();
    connection->ends.clear();
    connection->error = 0;
    call(elsewhere, [&] { writer->destroy(); });
  }

  void renew_writer(Connection* connection, bool elsewhere) {
    if (connection->broken) return;
    if (connection->writer) destroy_writer(connection, elsewhere);
    if (input.chance(2)) connection->writer = new Writer(this, connection->file.get());
  }

  // ---- the peers ----

  void open(Connection* connection) {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no sockets");
    const int small = 4608;
    for (const int end : ends) setsockopt(end, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    connection->file = std::make_unique<VrnFile>();
    connection->file->assign(ends[0], "f", true);
    connection->peer = ends[1];
    connection->writer = new Writer(this, connection->file.get());
  }

  static void send_from_peer(Connection* connection, std::size_t count) {
    if (connection->peer_ended) return;
    const std::string bytes = bytes_at(connection->sent, count);
    const ssize_t sent = ::write(connection->peer, bytes.data(), bytes.size());
    if (sent > 0) connection->sent += sent;
  }

  static void receive_at_peer(Connection* connection) {
    if (connection->peer_deaf) return;
    char bytes[16384];
    const ssize_t count = read(connection->peer, bytes, sizeof bytes);
    if (count <= 0) return;
    require_bytes(bytes, connection->arrived, static_cast<std::size_t>(count), "peer");
    connection->arrived += count;
    require(connection->arrived <= connection->accepted, "more arrives than was written");
  }

  static void end_sending(Connection* connection) {
    if (connection->peer != -1) shutdown(connection->peer, SHUT_WR);
    connection->peer_ended = true;
  }

  static void end_receiving(Connection* connection) {
    if (connection->peer != -1) shutdown(connection->peer, SHUT_RD);
    connection->peer_deaf = true;
  }

  static void hang_up(Connection* connection) {
    if (connection->peer == -1) return;
    connection->peer_lost = unread(connection->peer) > 0;
    close(connection->peer);
    connection->peer = -1;
    connection->peer_ended = connection->peer_deaf = true;
  }

  Connection* connection_of(const VrnFile* file) {
    for (Connection& connection : connections) {
      if (connection.file.get() == file) return &connection;
    }
    require(false, "a callback names another file");
    return nullptr;
  }

  void end_connections() {
    for (Connection& connection : connections) {
      if (connection.writer) std::exchange(connection.writer, nullptr)->destroy();
      if (connection.peer != -1) close(std::exchange(connection.peer, -1));
    }
  }

  Input input;
  VrnEvtMgr* mgr;
  int writers_alive = 0;
  Connection connections[CONNECTIONS];
  Reader reader;
  TurnTimer turn_timer;
  int turns = 0;
  int last_turns = 0;
  bool finishing = false;  // no more operations
  bool stopped = false;    // neither turns
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool prepared = [] {
    signal(SIGPIPE, SIG_IGN);
    unsetenv("VORN_EM_POLLONLY");
    unsetenv("VORN_EM_THROWTASKS");
    drop_log_lines();
    return true;
  }();
  require(prepared, "not prepared");
  Run(Input(data, size)).go();
  return 0;
}
