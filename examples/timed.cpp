// Tells the time over UDP: answers each datagram that asks for it.
//
//   timed -C FILE [-L LOGGER-GROUP] [-D DIRECTORY]
//
// A question is "?" and up to 64 characters of the asker's choice, the answer "=", the same
// characters, a blank and the time of day, so that an asker tells late answers from present ones.
// Anything else is left unanswered, answers above all: two of these daemons whom somebody sets at
// each other fall silent at once. The file's group "timed" (timed.conf shows one) says where to
// listen and how times are written; it is followed when the file changes: a daemon reads it again
// on SIGUSR1. Ends on SIGTERM, and without -D on SIGINT.
#include "vornfc/vornfc.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

using namespace vornfc;

class Timed : public VrnAppShell, VrnAsyncReceiver, VrnSignalHandler, VrnObserver {
 public:
  Timed()
      : VrnAppShell(nullptr, "timed", "1.0", "Tells the time over UDP"),
        VrnAsyncReceiver("timed") {}

 private:
  static constexpr size_t LongestQuestion = 65;
  static constexpr int Burst = 64;  // datagrams that are answered before others get their turn

  int appInit() override {
    apply_settings();
    appConfig()->attach(this);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  // Nothing changes unless everything is good.
  void apply_settings() {
    const VrnConfig& file = *appConfig()->config;
    const std::string wanted = file.value("timed", "ADDRESS", true, 0);
    const std::string written = file.value("timed", "FORMAT", false, 0);
    if (wanted != address) {
      auto fresh = std::make_unique<VrnServerSocket>(wanted.c_str(), false);
      fresh->activate();
      aioStart(fresh.get());
      socket = std::move(fresh);  // the event manager forgets the one that ends
      address = wanted;
    }
    format = written.empty() ? "%Y-%m-%dT%H:%M:%SZ" : written;
    vrnlog(3, "Telling the time on %s as %s", socket->name(), format.c_str());
  }

  void observerNotified(VrnNotifier*) override {
    try {
      apply_settings();
    } catch (...) {
      vrnlog(1, "The settings stay as they were: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "timed"; }

  void aioReady(VrnFile* file) override {
    for (int i = 0; i < Burst; ++i) {
      char question[LongestQuestion + 1];
      sockaddr_in asker{};
      socklen_t size = sizeof asker;
      const ssize_t length = recvfrom(file->fd, question, sizeof question, 0,
                                      reinterpret_cast<sockaddr*>(&asker), &size);
      if (length == -1 && errno == EAGAIN) return;
      if (length < 1 || length > static_cast<ssize_t>(LongestQuestion) || question[0] != '?') {
        vrnlog(4, "Not a question, %d bytes", static_cast<int>(length));
        continue;
      }
      const std::string answer =
          "=" + std::string(question + 1, static_cast<size_t>(length) - 1) + " " + now();
      if (sendto(file->fd, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&asker),
                 size) == -1) {
        vrnlog(1, "An answer is lost (errno=%d)", errno);
      }
    }
  }

  std::string now() const {
    timeval time;
    gettimeofday(&time, nullptr);
    tm parts{};
    gmtime_r(&time.tv_sec, &parts);
    char text[128];
    return {text, strftime(text, sizeof text, format.c_str(), &parts)};
  }

  void aioRemoved(VrnFile*, bool hangup, bool error) override {
    if (!hangup && !error) return;
    vrnlog(1, "The socket is lost");
    appTerminate();
  }

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    aioTerminate();
  }

  void signalReceived(int) override { appTerminate(); }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "timed"; }

  std::string address, format;
  std::unique_ptr<VrnServerSocket> socket;
};

static Timed app;
