// Exceptions from the application. In a busy run of the loop, with every kind of callback, each
// call in turn throws; the loop then goes on, or ends, as it should, and nothing else is lost. The
// hooks of the application shell throw likewise.

#include "support/log_capture.h"
#include "support/loop.h"
#include "vornfc/appshell.h"
#include "vornfc/async_rcvr.h"
#include "vornfc/async_rdr.h"
#include "vornfc/asyncw.h"
#include "vornfc/client_socket.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"
#include "vornfc/notifier.h"
#include "vornfc/server_socket.h"
#include "vornfc/timer.h"
#include "vornfc/utils.h"
#include "vornsupport/support.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vornfc {
namespace {

using Lines = std::vector<std::string>;
using Calls = std::map<std::string, Lines>;  // what each object was told, in order

// ---- what is thrown ----

enum Thrown { OfTheLibrary, OfTheStandard, OfNeither };
constexpr std::array<Thrown, 3> all_thrown{OfTheLibrary, OfTheStandard, OfNeither};

[[noreturn]] void throw_it(Thrown what) {
  errno = 0;  // a VrnException takes note of it
  switch (what) {
    case OfTheLibrary: throw VrnException(77, "boom");
    case OfTheStandard: throw std::runtime_error("boom");
    case OfNeither: break;
  }
  throw 77;
}

std::string text_of(Thrown what) {
  switch (what) {
    case OfTheLibrary: return "VrnException: Error=77 (errno=0) - boom";
    case OfTheStandard: return "St13runtime_error=boom";
    case OfNeither: break;
  }
  return "Unidentified exception";
}

// ---- who throws, and when ----

// What kind of call it is decides what becomes of its exception.
enum Kind {
  None,
  Expired,
  ExpiryPassedOn,  // something that a timer's callback calls, and whose exception it does not catch
  TimerStopped,
  Signalled,
  SignalStopped,
  Ready,
  WatchEnded,
  Notified,
  Detached,
  DetachHook
};

// The `number`th call (from 1) that `object` gets.
struct Place {
  std::string object;
  size_t number = 0;
  Kind kind = None;
};

// Writes down every call, and throws at its place once the callback has done its work.
struct Record {
  void told(const std::string& object, Kind kind, const std::string& call) {
    Lines& of_object = calls[object];
    of_object.push_back(call);
    places.push_back({object, of_object.size(), kind});
    if (object == thrower.object && of_object.size() == thrower.number) throw_it(what);
  }

  Place thrower;  // by default nobody
  Thrown what = OfTheLibrary;
  Calls calls;
  std::vector<Place> places;  // of all calls, in order
};

// ---- the objects that are called ----

std::string with_flags(std::string call, bool hangup, bool error) {
  if (hangup) call += " hangup";
  if (error) call += " error";
  return call;
}

std::string read_one(const VrnFile* file) {
  char byte;
  return read(file->fd, &byte, 1) == 1 ? std::string(1, byte) : "nothing";
}

struct Timer : VrnTimer {
  Timer(Record* calls, const std::string& name) : VrnTimer(name), record(calls) {}

  void timerExpired() override {
    ++expiries;
    if (on_expired) on_expired();
    record->told(tmrtag(), Expired, "expired");
  }
  void timerStopped() override { record->told(tmrtag(), TimerStopped, "stopped"); }

  Record* const record;
  int expiries = 0;
  Call on_expired;
};

struct Handler : VrnSignalHandler {
  explicit Handler(Record* calls) : record(calls) {}

  void signalReceived(int signo) override {
    if (++arrivals == 1) {
      raise(signo);
    } else {
      VrnAppShell::evtmgr->stopSignal(this, signo, false);
    }
    record->told("signal", Signalled, "received");
  }
  void signalStopped(int) override { record->told("signal", SignalStopped, "stopped"); }
  const char* sigtag() const override { return "signal"; }

  Record* const record;
  int arrivals = 0;
};

// Takes a byte at each call, if it watches for input, and stops after `last` calls.
struct Watcher : VrnAIO {
  Watcher(Record* calls, const std::string& name, bool isInput, int calls_until_stop)
      : VrnAIO(isInput, name), record(calls), last(calls_until_stop) {}

  void aioReady(VrnFile* file) override {
    const std::string byte = input ? " " + read_one(file) : "";
    if (++count == last) VrnAppShell::evtmgr->stopAIO(file, this);
    record->told(tag, Ready, "ready" + byte);
  }
  void aioCancelled(VrnFile*, bool hangup, bool error) override {
    record->told(tag, WatchEnded, with_flags("cancelled", hangup, error));
  }

  Record* const record;
  const int last;
  int count = 0;
};

// Takes a connection, and stops.
struct Acceptor : VrnAIO {
  explicit Acceptor(Record* calls) : VrnAIO(true, "server"), record(calls) {}

  void aioReady(VrnFile* file) override {
    accepted.reset(static_cast<VrnServerSocket*>(file)->accept());
    VrnAppShell::evtmgr->stopAIO(file, this);
    record->told(tag, Ready, accepted ? "ready for a caller" : "ready for nobody");
  }
  void aioCancelled(VrnFile*, bool hangup, bool error) override {
    record->told(tag, WatchEnded, with_flags("cancelled", hangup, error));
  }

  Record* const record;
  std::unique_ptr<VrnSocket> accepted;
};

// Each of its files is an object of the record: "receiver.<file>".
struct Receiver : VrnAsyncReceiver {
  explicit Receiver(Record* calls) : VrnAsyncReceiver("receiver"), record(calls) {}

  void aioReady(VrnFile* file) override {
    const std::string byte = read_one(file);
    if (byte == "z") aioStop(file);
    record->told(tag + "." + file->name(), Ready, "ready " + byte);
  }
  void aioRemoved(VrnFile* file, bool hangup, bool error) override {
    record->told(tag + "." + file->name(), WatchEnded, with_flags("removed", hangup, error));
  }

  Record* const record;
};

struct Reader : VrnAsyncReader {
  explicit Reader(Record* calls) : VrnAsyncReader("reader"), record(calls) {}

  void aioReceived(VrnFile* file, int bytes, char* data) override {
    const std::string text(data, static_cast<size_t>(bytes));
    record->told(tag + "." + file->name(), Ready, "received " + text);
  }
  void aioReadable(VrnFile* file) override {
    const std::string byte = read_one(file);
    if (byte == "z") aioStop(file, true);
    record->told(tag + "." + file->name(), Ready, "readable " + byte);
  }
  void aioRemoved(VrnFile* file, bool hangup, bool error) override {
    record->told(tag + "." + file->name(), WatchEnded, with_flags("removed", hangup, error));
  }

  Record* const record;
  char buffer[4]{};
};

struct Writer : VrnAsyncWriter {
  Writer(Record* calls, VrnFile* file) : VrnAsyncWriter(file, false), record(calls) {}

  void aioReady(VrnFile* file) override {
    VrnAsyncWriter::aioReady(file);
    record->told(tag, Ready, "ready");
  }
  void aioCancelled(VrnFile* file, bool hangup, bool error) override {
    VrnAsyncWriter::aioCancelled(file, hangup, error);
    record->told(tag, WatchEnded, with_flags("cancelled", hangup, error));
  }

  Record* const record;
};

struct Client : VrnSocketsClient {
  Client(Record* calls, std::string name, Kind call)
      : record(calls), object(std::move(name)), kind(call) {}

  void socketConnected(VrnClientSocket*, int result) override {
    record->told(object, kind, "connected " + std::to_string(result));
  }

  Record* const record;
  const std::string object;
  const Kind kind;
};

struct Observer : VrnObserver {
  void observerNotified(VrnNotifier*) override { record->told(name, Notified, "notified"); }
  void observerDetached(VrnNotifier*) override { record->told(name, Detached, "detached"); }
  std::string observerName() const override { return name; }

  Record* record = nullptr;
  std::string name;
};

struct Notifier : VrnNotifier {
  explicit Notifier(Record* calls) : VrnNotifier("notifier"), record(calls) {}

  void notifierAttached(VrnObserver* observer) override {
    if (tells_attach) record->told(observer->observerName(), ExpiryPassedOn, "attached");
  }
  void notifierDetached(VrnObserver* observer) override {
    record->told(observer->observerName(), DetachHook, "dropped");
  }

  Record* const record;
  bool tells_attach = false;
};

// ---- what they watch ----

// A file, and the descriptor at its other end, which lets the file's be read from or written to.
class Channel {
 public:
  enum Medium { Socket, Pipe };  // the end of a pipe is a hang-up, that of a socket is read

  Channel(const std::string& name, Medium medium) {
    int ends[2]{-1, -1};
    EXPECT_EQ(medium == Pipe ? pipe(ends) : socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    file.assign(ends[0], name, true);
    peer = ends[1];
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel() { end(); }

  void send(const std::string& text) const {
    EXPECT_EQ(write(peer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void send_and_end(const std::string& text) {
    send(text);
    end();
  }
  void fill() {
    const std::string chunk(65536, '.');
    file.setBlockingMode(false);
    while (write(file.fd, chunk.data(), chunk.size()) > 0) {
    }
  }
  std::string drain() const {  // what has arrived at the other end
    std::string text;
    char chunk[65536];
    ssize_t count;
    while ((count = recv(peer, chunk, sizeof chunk, MSG_DONTWAIT)) > 0) {
      text.append(chunk, static_cast<size_t>(count));
    }
    return text;
  }

  VrnFile file;

 private:
  void end() {
    if (peer != -1) close(peer);
    peer = -1;
  }

  int peer = -1;
};

void bind_to_any_port(const VrnSocket& socket) {
  const auto address = reinterpret_cast<const sockaddr*>(&socket.address);
  EXPECT_EQ(bind(socket.fd, address, sizeof socket.address), 0);
}

int port_of(const VrnSocket& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(getsockname(socket.fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
  return ntohs(address.sin_port);
}

ino_t inode_of(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 ? status.st_ino : 0;
}

// ---- all of it ----

const Calls all_calls{
    {"once", {"expired"}},
    {"again", {"expired", "expired"}},
    {"repeating", {"expired", "expired", "expired", "stopped"}},
    {"halted", {"stopped"}},
    {"restarted", {"expired"}},
    {"signal", {"received", "received", "stopped"}},
    {"input", {"ready a", "ready b", "ready c", "cancelled"}},
    {"ended", {"ready d", "ready e", "cancelled hangup"}},
    {"output", {"ready", "ready", "cancelled"}},
    {"both.in", {"ready f", "ready g", "cancelled"}},
    {"both.out", {"ready", "ready", "cancelled"}},
    {"receiver.stopped", {"ready h", "ready z", "removed"}},
    {"receiver.ended", {"ready i", "removed hangup"}},
    {"reader.filled", {"received jklm", "received nopq", "removed hangup"}},
    {"reader.listened", {"readable r", "readable z", "removed"}},
    {"writer", {"ready", "cancelled"}},
    {"server", {"ready for a caller", "cancelled"}},
    {"caller", {"connected 0"}},
    {"refused", {"connected -2"}},
    {"datagrams", {"connected 0"}},
    {"observer 0", {"notified", "notified", "dropped"}},
    {"observer 1", {"notified", "notified", "detached"}},
    {"observer 2", {"notified", "notified", "detached"}},
    {"observer 3", {"attached", "dropped"}},
};

// The objects, which start() sets going. It is called on the dispatcher thread.
class Scene {
 public:
  explicit Scene(Record* calls);
  ~Scene();
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  void start(bool in_reverse);
  void expect_open(const std::string& closed_one) const;  // all descriptors but that one's

  Record* const record;

  // Watchers are destroyed before what they watch.
  Channel for_input{"input", Channel::Socket};
  Channel for_end{"ended", Channel::Pipe};
  Channel for_output{"output", Channel::Socket};
  Channel for_both{"both", Channel::Socket};
  Channel for_receiver_stop{"stopped", Channel::Socket};
  Channel for_receiver_end{"ended", Channel::Pipe};
  Channel for_buffer{"filled", Channel::Socket};
  Channel for_listening{"listened", Channel::Socket};
  Channel for_writer{"writer", Channel::Socket};
  VrnServerSocket listening{static_cast<unsigned*>(nullptr), 0, true};
  VrnSocket refusing{true, static_cast<unsigned*>(nullptr), 0, true};  // does not listen

  Timer once{record, "once"};
  Timer again{record, "again"};
  Timer repeating{record, "repeating"};
  Timer halted{record, "halted"};
  Timer restarted{record, "restarted"};
  CountingTimer connector{"connector"};
  CountingTimer attacher{"attacher"};
  Handler handler{record};
  Watcher input{record, "input", true, 3};
  Watcher ended{record, "ended", true, 0};
  Watcher output{record, "output", false, 2};
  Watcher both_in{record, "both.in", true, 2};
  Watcher both_out{record, "both.out", false, 2};
  Receiver receiver{record};
  Reader reader{record};
  Writer* const writer;
  Acceptor acceptor{record};
  Client caller{record, "caller", WatchEnded};
  Client refused{record, "refused", WatchEnded};
  Client datagrams{record, "datagrams", ExpiryPassedOn};
  VrnClientSocket* calling = nullptr;
  VrnClientSocket* calling_in_vain = nullptr;
  VrnClientSocket* sending = nullptr;
  std::array<Observer, 4> observers;  // notified in this order
  Notifier notifier{record};
  Notifier late_notifier{record};

 private:
  void plan_timers();
  void send_data();
  std::vector<Call> starts();

  std::map<std::string, std::pair<const VrnFile*, ino_t>> watched;  // by object
};

Scene::Scene(Record* calls) : record(calls), writer(new Writer(calls, &for_writer.file)) {
  listening.activate();
  bind_to_any_port(refusing);
  calling = new VrnClientSocket(nullptr, port_of(listening), true);
  calling_in_vain = new VrnClientSocket(nullptr, port_of(refusing), true);
  sending = new VrnClientSocket(nullptr, 9, false);  // where it sends nothing
  const std::map<std::string, const VrnFile*> files{
      {"input", &for_input.file},
      {"ended", &for_end.file},
      {"output", &for_output.file},
      {"both.in", &for_both.file},
      {"both.out", &for_both.file},
      {"receiver.stopped", &for_receiver_stop.file},
      {"receiver.ended", &for_receiver_end.file},
      {"reader.filled", &for_buffer.file},
      {"reader.listened", &for_listening.file},
      {"writer", &for_writer.file},
      {"server", &listening},
      {"caller", calling},
      {"refused", calling_in_vain},
      {"datagrams", sending},
  };
  for (const auto& [object, file] : files) watched[object] = {file, inode_of(file->fd)};
  for (size_t i = 0; i < observers.size(); ++i) {
    observers[i].record = record;
    observers[i].name = "observer " + std::to_string(i);
    if (i < 3) notifier.attach(&observers[i]);
  }
  late_notifier.tells_attach = true;
  plan_timers();
  send_data();
}

Scene::~Scene() {
  writer->destroy();
  for (VrnClientSocket* socket : {calling, calling_in_vain, sending}) socket->destroy();
}

void Scene::plan_timers() {
  once.on_expired = [] { raise(SIGUSR1); };
  again.on_expired = [this] {
    if (again.expiries == 1) {
      again.startTimer(0, 1000, 0, 0);
    } else {
      halted.stopTimer();
    }
  };
  repeating.on_expired = [this] {
    if (repeating.expiries < 3) return notifier.notifyObservers();
    notifier.detach(observers.data());
    notifier.VrnNotifier::operator=(late_notifier);  // detaches those that are left
    repeating.stopTimer();
  };
  attacher.on_expired = [this] {
    late_notifier.attach(&observers[3]);
    late_notifier.detach(&observers[3]);
  };
  connector.on_expired = [this] { sending->connect(&datagrams, 0); };
}

void Scene::send_data() {
  for_input.send("abc");
  for_end.send_and_end("de");
  for_both.send("fg");
  for_receiver_stop.send("hz");
  for_receiver_end.send_and_end("i");
  for_buffer.send_and_end("jklmnopq");
  for_listening.send("rz");
}

std::vector<Call> Scene::starts() {
  VrnEvtMgr* const mgr = VrnAppShell::evtmgr;
  return {
      [this] { once.startTimer(0, 0, 0, 0); },
      [=] { mgr->startAIO(&for_input.file, &input); },
      [this] { again.startTimer(0, 0, 0, 0); },
      [=] { mgr->startAIO(&for_end.file, &ended); },
      [this] { repeating.startTimer(0, 0, 0, 1000); },
      [=] { mgr->startAIO(&for_output.file, &output); },
      [this] { halted.startTimer(60, 0, 0, 0); },
      [=] {
        mgr->startAIO(&for_both.file, &both_out);
        mgr->startAIO(&for_both.file, &both_in);
      },
      [this] {
        restarted.startTimer(60, 0, 0, 0);
        restarted.stopTimer();
        restarted.startTimer(0, 0, 0, 0);
      },
      [this] { receiver.aioStart(&for_receiver_stop.file); },
      [this] { receiver.aioStart(&for_receiver_end.file); },
      [this] { reader.aioRequest(&for_buffer.file, sizeof reader.buffer, reader.buffer); },
      [this] { reader.aioListen(&for_listening.file); },
      [this] {
        for_writer.fill();
        EXPECT_EQ(writer->awrite("message", 7), 0);
        for_writer.drain();
      },
      [=] { mgr->startAIO(&listening, &acceptor); },
      [this] { EXPECT_EQ(calling->connect(&caller, 0), 0); },
      [this] { EXPECT_EQ(calling_in_vain->connect(&refused, 0), 0); },
      [this] { connector.startTimer(0, 0, 0, 0); },
      [this] { attacher.startTimer(0, 0, 0, 0); },
  };
}

void Scene::start(bool in_reverse) {
  VrnAppShell::evtmgr->startSignal(&handler, SIGUSR1);
  std::vector<Call> calls = starts();
  if (in_reverse) std::reverse(calls.begin(), calls.end());
  for (const Call& call : calls) call();
}

void Scene::expect_open(const std::string& closed_one) const {
  const auto closed = watched.find(closed_one);
  for (const auto& [object, file] : watched) {
    const bool is_closed = closed != watched.end() && closed->second == file;
    EXPECT_EQ(inode_of(file.first->fd) == file.second, !is_closed) << object;
  }
}

// ---- what has to become of an exception ----

std::string logged(const Place& place, const std::string& text) {
  const std::string signal = "EvtMgr: Handler for Signal=" + std::to_string(SIGUSR1) + " threw on ";
  const std::string tail = " [" + text + "]";
  switch (place.kind) {
    case None: break;
    case Expired:
    case ExpiryPassedOn: return "EvtMgr: Timer threw" + tail;
    case TimerStopped: return "EvtMgr: timerCancelled threw" + tail;
    case Signalled: return signal + "signal" + tail;
    case SignalStopped: return signal + "cancel" + tail;
    case Ready: return "EvtMgr: IO task threw" + tail;
    case WatchEnded: return "EvtMgr: aioCancelled threw" + tail;
    case Notified: return "VrnNotifier: Failed to notify " + place.object + tail;
    case Detached: return "VrnNotifier: Problem detaching " + place.object + tail;
    case DetachHook: return "VrnNotifier: Problem handling detach by " + place.object + tail;
  }
  return "";
}

// With VORN_EM_THROWTASKS on.
bool ends_loop(Kind kind) {
  return kind == Expired || kind == ExpiryPassedOn || kind == Ready;
}

// When the loop goes on: all calls, but those of a watch or an attachment that has ended. Of two
// watchers of a descriptor, the one that watches for output is called first.
Calls calls_around(const Place& thrower) {
  Calls calls = all_calls;
  const auto end_after = [&](const std::string& object, size_t count) {
    if (calls[object].size() > count) calls[object].resize(count);
  };
  if (thrower.kind == Notified || thrower.kind == Ready || thrower.kind == ExpiryPassedOn) {
    end_after(thrower.object, thrower.number);
  }
  if (thrower.kind != Ready) return calls;
  if (thrower.object == "both.in") end_after("both.out", thrower.number);
  if (thrower.object == "both.out") end_after("both.in", thrower.number - 1);
  if (thrower.object == "both.in") calls["both.out"].emplace_back("cancelled hangup error");
  if (thrower.object == "both.out") calls["both.in"].emplace_back("cancelled hangup error");
  return calls;
}

// When the loop has ended: every object has had the first of its calls, or all, and no others.
void expect_beginnings(const Calls& calls) {
  for (const auto& [object, told] : calls) {
    const Lines& all = all_calls.at(object);
    ASSERT_LE(told.size(), all.size()) << object;
    EXPECT_TRUE(std::equal(told.begin(), told.end(), all.begin())) << object;
  }
}

// ---- the runs ----

// Only errors are logged: the first line of a process decides that.
void log_errors_only() {
  unsetenv("VORNTRC_APPTAG");
  vrnlog(5, "not logged");
}

class ThrowingTest : public testing::TestWithParam<bool> {
 protected:
  ThrowingTest() { log_errors_only(); }

  static std::vector<Place> all_places() {
    Record record;
    run(&record, false, false);
    size_t calls = 0;
    for (const auto& [object, told] : all_calls) calls += told.size();
    EXPECT_EQ(record.places.size(), calls);
    return record.places;
  }

  static void run_to_the_end(Loop* loop, Record* record, bool in_reverse) {
    const Calls expected = calls_around(record->thrower);
    Scene scene(record);
    loop->on_dispatcher([&] { scene.start(in_reverse); });
    loop->run_until([&] { return record->calls == expected; });
    EXPECT_EQ(record->calls, expected);
    const bool closes = record->thrower.kind == Ready;
    scene.expect_open(closes ? record->thrower.object : "");
    EXPECT_EQ(scene.receiver.aioFiles(), 0);
    EXPECT_EQ(scene.reader.aioFiles(), 0);
    EXPECT_EQ(scene.for_writer.drain(), "message");
    const bool writer_threw = closes && record->thrower.object == "writer";
    EXPECT_EQ(scene.writer->awrite("x", 1) != 0, writer_threw);
  }

  static void run_until_it_throws(Loop* loop, Record* record, bool in_reverse) {
    Scene scene(record);
    loop->on_dispatcher([&] { scene.start(in_reverse); });
    loop->run();
    EXPECT_GE(record->calls[record->thrower.object].size(), record->thrower.number);
    expect_beginnings(record->calls);
    scene.expect_open("");
    if (!in_reverse) return;
    // The objects may outlive the event manager, too.
    VrnEvtMgr::destroy();
    VrnAppShell::evtmgr = nullptr;
  }

  static void run(Record* record, bool throw_tasks, bool in_reverse) {
    setenv("VORN_EM_THROWTASKS", throw_tasks ? "y" : "n", 1);
    const Place& thrower = record->thrower;
    const std::vector<int> open_before = open_descriptors();
    {
      Loop loop;
      if (throw_tasks && ends_loop(thrower.kind)) {
        run_until_it_throws(&loop, record, in_reverse);
      } else {
        run_to_the_end(&loop, record, in_reverse);
      }
    }
    EXPECT_EQ(open_descriptors(), open_before);
    Loop next;
    CountingTimer timer("next");
    next.on_dispatcher([&] { timer.startTimer(0, 0, 0, 0); });
    next.run_until([&] { return timer.expired == 1; });
  }

  static void run_and_throw(const Place& place, Thrown what, bool throw_tasks, bool in_reverse) {
    SCOPED_TRACE(place.object + ", call " + std::to_string(place.number) + " throws " +
                 text_of(what));
    const LogCapture log;
    Record record;
    record.thrower = place;
    record.what = what;
    run(&record, throw_tasks, in_reverse);
    const std::string text = text_of(what);
    EXPECT_EQ(log.lines(), Lines{throw_tasks && ends_loop(place.kind)
                                     ? "EvtMgr: Error in dispatcher [" + text + "]"
                                     : logged(place, text)});
  }

  static void throw_everywhere(bool throw_tasks, bool in_reverse) {
    for (const Place& place : all_places()) {
      for (const Thrown what : all_thrown) {
        run_and_throw(place, what, throw_tasks, in_reverse);
        if (HasFailure()) return;  // the others might each wait for their deadline
      }
    }
  }
};

TEST_P(ThrowingTest, NobodyThrows) {
  const LogCapture log;
  for (const bool throw_tasks : {false, true}) {
    Record record;
    run(&record, throw_tasks, GetParam());
    EXPECT_EQ(record.calls, all_calls);
  }
  EXPECT_EQ(log.lines(), Lines());
}

TEST_P(ThrowingTest, LoopGoesOnAfterEveryException) {
  throw_everywhere(false, GetParam());
}

TEST_P(ThrowingTest, LoopEndsAfterThoseOfTimersAndDescriptorsWhenAskedTo) {
  throw_everywhere(true, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Started, ThrowingTest, testing::Bool(), [](const auto& instance) {
  return instance.param ? "InReverse" : "InOrder";
});

// ---- the hooks of the application shell ----

const Lines all_hooks{"appSetup", "appParseArg", "appInit", "appRun", "appTerminated"};

// An application that throws in one of its hooks.
class ThrowingApp : public VrnAppShell {
 public:
  ThrowingApp(std::string thrower, Thrown what)
      : VrnAppShell(to_stderr(), "app", nullptr, nullptr), hook(std::move(thrower)), thrown(what) {}

  int appSetup(gnl_init_ctrl*) override { return called("appSetup"); }
  int appParseArg(int, int, const char*) override { return called("appParseArg"); }
  int appInit() override { return called("appInit"); }
  void appRun() override {
    called("appRun");
    VrnAppShell::appRun();
  }
  void appTerminated() override { called("appTerminated"); }
  void appUsage() const override {
    if (hook == "appUsage") throw_it(thrown);
  }

  Lines hooks;

 private:
  static VrnLogSpec* to_stderr() {
    auto* const spec = new VrnLogSpec;
    spec->stream = stderr;
    spec->level = 1;
    return spec;
  }

  int called(const std::string& name) {
    hooks.push_back(name);
    if (hook == name) throw_it(thrown);
    if (name == "appInit") appTerminate();  // the run returns at once
    return 0;
  }

  const std::string hook;
  const Thrown thrown;
};

// How a start ends in which the hook throws.
struct Failure {
  std::string hook;
  std::string argument;  // of the command line
  int result;            // of start()
  std::string prefix;    // of the log line
  bool printed;
  Lines called;
};

const std::vector<Failure> failures{
    {"appSetup", "word", 1, "AppShell.start: ", true, {"appSetup", "appTerminated"}},
    {"appParseArg",
     "word",
     0,
     "AppShell.args: ",
     false,
     {"appSetup", "appParseArg", "appTerminated"}},
    {"appUsage", "-h", 0, "AppShell.args: ", false, {"appSetup", "appTerminated"}},
    {"appUsage", "-?", 1, "AppShell.start: ", true, {"appSetup", "appTerminated"}},
    {"appInit",
     "word",
     1,
     "AppShell.start: ",
     true,
     {"appSetup", "appParseArg", "appInit", "appTerminated"}},
    {"appRun", "word", 1, "AppShell.start: ", true, all_hooks},
    {"appTerminated", "word", 0, "AppShell.shutdown: ", false, all_hooks},
};

std::ptrdiff_t lines_ending_in(const Lines& lines, const std::string& text) {
  return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line.size() >= text.size() &&
           line.compare(line.size() - text.size(), text.size(), text) == 0;
  });
}

class ThrowingAppTest : public testing::Test {
 protected:
  ThrowingAppTest() {
    log_errors_only();
    gnl_prognam = name;
  }

  static int start(ThrowingApp* app, const std::string& argument) {
    const char* const argv[] = {"app", argument.c_str(), nullptr};
    return app->start(2, argv);
  }

 private:
  char name[4] = "app";
};

TEST_F(ThrowingAppTest, EveryHookThrows) {
  for (const Failure& failure : failures) {
    for (const Thrown what : all_thrown) {
      const std::string text = text_of(what);
      SCOPED_TRACE(failure.hook + " throws " + text);
      const LogCapture log;
      const std::vector<int> open_before = open_descriptors();
      {
        ThrowingApp app(failure.hook, what);
        EXPECT_EQ(start(&app, failure.argument), failure.result);
        EXPECT_EQ(app.hooks, failure.called);
      }
      EXPECT_EQ(open_descriptors(), open_before);
      EXPECT_EQ(lines_ending_in(log.lines(), failure.prefix + text), 1);
      const bool printed = log.raw().find("\n" + text + "\n\n") != std::string::npos;
      EXPECT_EQ(printed, failure.printed);
    }
  }
}

// The library's own main(), which that of this program hides.
int library_main(const std::string& argument) {
  Dl_info library{};
  if (dladdr(reinterpret_cast<void*>(&VrnException::handler), &library) == 0) return -1;
  void* const handle = dlopen(library.dli_fname, RTLD_NOW | RTLD_NOLOAD);
  void* const address = handle ? dlsym(handle, "main") : nullptr;
  if (!address) return -1;
  char program[] = "/bin/app";
  std::string word = argument;
  char* argv[] = {program, word.data(), nullptr};
  return reinterpret_cast<int (*)(int, char**)>(address)(2, argv);
}

TEST_F(ThrowingAppTest, ProcessExitsWithStatusZeroAllTheSame) {
  for (const Failure& failure : failures) {
    SCOPED_TRACE(failure.hook);
    const auto run = [&] {
      ThrowingApp app(failure.hook, OfTheStandard);
      const int status = library_main(failure.argument);
      exit(app.hooks == failure.called ? status : 2);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), failure.prefix + "St13runtime_error=boom");
  }
}

// The loop ends, which is no failure of the start.
TEST_F(ThrowingAppTest, CallbackThatEndsTheLoopEndsTheRun) {
  struct App : ThrowingApp {
    App() : ThrowingApp("nobody", OfNeither) {}
    int appInit() override {
      timer.startTimer(0, 0, 0, 0);
      return 0;
    }
    CountingTimer timer{"t", [] { throw_it(OfNeither); }};
  };
  setenv("VORN_EM_THROWTASKS", "y", 1);
  const LogCapture log;
  App app;
  EXPECT_EQ(start(&app, "word"), 0);
  EXPECT_EQ(app.hooks, (Lines{"appSetup", "appParseArg", "appRun", "appTerminated"}));
  EXPECT_EQ(lines_ending_in(log.lines(), "EvtMgr: Error in dispatcher [Unidentified exception]"),
            1);
}

}  // namespace
}  // namespace vornfc
