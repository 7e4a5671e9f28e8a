// A log collector: writes the lines that it receives over TCP and UDP to a log file.
//
//   logsinkd -C FILE [-L LOGGER-GROUP] [-D DIRECTORY]
//
// A line may begin with a priority as senders of the syslog protocol write it, "<13>"; its severity
// becomes the level of the record. The file's group "logsinkd" says where to listen, "sink" where
// lines go (logsinkd.conf shows both). Ends on SIGTERM, and without -D on SIGINT; a line that is
// not complete when its sender leaves is written as it is.
#include "vornfc/vornfc.h"

#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

using namespace vornfc;

// One that sends over TCP.
struct Sender {
  std::unique_ptr<VrnSocket> socket;
  std::string text;  // the beginning of a line
};

class LogSink : public VrnAppShell, VrnAsyncReceiver, VrnTimer, VrnSignalHandler, VrnObserver {
 public:
  LogSink()
      : VrnAppShell(nullptr, "logsinkd", "1.0", "Log collector"),
        VrnAsyncReceiver("logsinkd"),
        VrnTimer("accept again") {}

 private:
  static constexpr size_t LongestLine = 65536;  // longer ones are written in pieces

  int appInit() override {
    VrnConfig* const config = appConfig()->config;
    sink.reset(VrnLog::configCreate(config, "sink", nullptr));
    const std::string address = config->value("logsinkd", "ADDRESS", true, 0);
    streams = std::make_unique<VrnServerSocket>(address.c_str(), true);
    datagrams = std::make_unique<VrnServerSocket>(address.c_str(), false);
    for (VrnServerSocket* socket : {streams.get(), datagrams.get()}) {
      socket->activate();
      aioStart(socket);
    }
    vrnlog(3, "Collecting on %s and %s", streams->name(), datagrams->name());
    appConfig()->attach(this);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    aioTerminate();
    stopTimer();
    while (!senders.empty()) aioRemoved(senders.begin()->first, false, false);
  }

  void observerNotified(VrnNotifier*) override {
    try {
      sink->level(appConfig()->config->value("sink", VrnLog::CFG_LEVEL, false, 0).c_str());
    } catch (...) {
      vrnlog(1, "The level stays as it was: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "logsinkd"; }

  // Without a descriptor left, the next sender waits until the next second.
  void accept_sender() {
    if (VrnSocket* const sender = streams->accept()) {
      senders[sender].socket.reset(sender);
      aioStart(sender);
    } else if (errno == EMFILE || errno == ENFILE) {
      vrnlog(1, "Out of descriptors");
      aioStop(streams.get());
      startTimer(1, 0, 0, 0);
    }
  }
  void timerExpired() override { aioStart(streams.get()); }
  void timerStopped() override {}

  void aioReady(VrnFile* file) override {
    if (file == streams.get()) return accept_sender();
    char buffer[65536];
    const ssize_t size = recv(file->fd, buffer, sizeof buffer, 0);
    if (size == -1 && (errno == EAGAIN || errno == EINTR)) return;
    const std::string received(buffer, size > 0 ? static_cast<size_t>(size) : 0);
    if (file == datagrams.get()) {
      write_lines(received + "\n");
    } else if (size > 0) {
      senders[file].text = write_lines(senders[file].text + received);
    } else {
      aioStop(file);
    }
  }

  // A sender leaves.
  void aioRemoved(VrnFile* file, bool, bool) override {
    const auto it = senders.find(file);
    if (it == senders.end()) return;
    if (!it->second.text.empty()) write_lines(it->second.text + "\n");
    senders.erase(it);
  }

  // Returns what is left: a line that has not ended.
  std::string write_lines(const std::string& text) {
    size_t begin = 0;
    for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
      write_line(text.substr(begin, end - begin));
    }
    if (text.size() - begin < LongestLine) return text.substr(begin);
    write_line(text.substr(begin));
    return "";
  }

  // A line cannot pretend to be several, nor hide anything in control characters.
  void write_line(std::string line) {
    int severity = 6, consumed = 0;
    if (unsigned priority; sscanf(line.c_str(), "<%3u>%n", &priority, &consumed) == 1 && consumed) {
      severity = static_cast<int>(priority % 8);
      line.erase(0, static_cast<size_t>(consumed));
    }
    while (!line.empty() && (line.back() == '\0' || line.back() == '\r')) line.pop_back();
    if (line.empty()) return;
    for (char& c : line) {
      if (iscntrl(static_cast<unsigned char>(c))) c = '?';
    }
    static constexpr int level_of[] = {1, 1, 1, 1, 2, 3, 3, 4};  // emergency to debug
    try {
      sink->log(level_of[severity], "%s", line.c_str());
    } catch (...) {
      vrnlog(1, "A line is lost: %s", VrnException::handler().c_str());
    }
  }

  void signalReceived(int) override { appTerminate(); }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "logsinkd"; }

  std::unique_ptr<VrnLog> sink;
  std::unique_ptr<VrnServerSocket> streams, datagrams;
  std::map<VrnFile*, Sender> senders;
};

static LogSink app;
