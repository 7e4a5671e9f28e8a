// A TCP relay: accepts connections, connects each to a target, and passes on what either side
// sends.
//
//   relayd -C FILE [-L LOGGER-GROUP] [-D DIRECTORY]
//
// The file's group "rules" says where to listen and whom to connect to, "relayd" holds the limits
// (relayd.conf shows both). They are followed when the file changes: a daemon reads it again on
// SIGUSR1. Ends on SIGTERM, and without -D on SIGINT, with every connection closed.
#include "connection.h"
#include "rule.h"
#include "vornfc/vornfc.h"

#include <csignal>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>

using namespace vornfc;

class Relay : public VrnAppShell, VrnTimer, VrnSignalHandler, VrnObserver {
 public:
  Relay() : VrnAppShell(nullptr, "relayd", "1.0", "TCP relay"), VrnTimer("relayd") {}

 private:
  int appInit() override {
    signal(SIGPIPE, SIG_IGN);
    apply_settings();
    appConfig()->attach(this);
    startTimer(1, 0, 1, 0);
    for (const int signo : {SIGTERM, SIGINT}) evtmgr->startSignal(this, signo);
    return 0;
  }

  void apply_settings() {
    const VrnConfig& file = *appConfig()->config;
    const auto positive = [&file](const char* item, int otherwise) {
      const int value = file.intval("relayd", item, otherwise, 0);
      VrnAssertFull(value > 0, "Invalid %s (%d)", item, value);
      return value;
    };
    limits = {positive("CONNECT_TIMEOUT", 5), positive("IDLE", 300), positive("LIMIT", 1 << 20)};
    std::set<std::string> addresses;
    for (const std::string& name : file.items("rules", true)) {
      addresses.insert(file.value("rules", name, true, 0));
    }
    for (auto it = rules.begin(); it != rules.end();) {
      const bool stays = addresses.count(it->first) != 0;
      if (!stays) it->second.release()->retire();
      it = stays ? std::next(it) : rules.erase(it);
    }
    for (const std::string& name : file.items("rules", true)) {
      apply_rule(name, file.value("rules", name, true, 0), file.value("rules", name, true, 1));
    }
  }

  // An address that is served already is only aimed anew.
  void apply_rule(const std::string& name, const std::string& address, const std::string& target) {
    const auto it = rules.find(address);
    if (it != rules.end()) return it->second->aim(name, target);
    rules[address] = std::make_unique<Rule>(name, address, target);
  }

  // What could not be applied is said; the rules before it have been, those behind it stay.
  void observerNotified(VrnNotifier*) override {
    try {
      apply_settings();
    } catch (...) {
      vrnlog(1, "Not all settings are applied: %s", VrnException::handler().c_str());
    }
  }
  void observerDetached(VrnNotifier*) override {}
  std::string observerName() const override { return "relayd"; }

  void timerExpired() override {
    for (const auto& entry : rules) entry.second->accept_callers();
    const std::set<Connection*> present = Connection::all;  // one that ends leaves the original
    for (Connection* connection : present) connection->end_if_silent();
  }
  void timerStopped() override {}

  void appTerminated() override {
    if (appConfig()) appConfig()->detach(this);
    while (!Connection::all.empty()) (*Connection::all.begin())->end("shut down");
    rules.clear();
  }

  void signalReceived(int) override { appTerminate(); }
  void signalStopped(int) override {}
  const char* sigtag() const override { return "relayd"; }

  std::map<std::string, std::unique_ptr<Rule>> rules;  // by address
};

static Relay app;
