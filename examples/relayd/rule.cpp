#include "rule.h"

#include "connection.h"

#include <cerrno>
#include <utility>

using namespace vornfc;

Rule::Rule(const std::string& rule, const std::string& listen, const std::string& to)
    : VrnAsyncReceiver(rule), name(rule), address(listen), server(listen.c_str(), true) {
  server.activate();
  aim(rule, to);
  accept_callers();
}

// Callers that come from now on are connected to `to`.
void Rule::aim(const std::string& rule, const std::string& to) {
  name = rule;
  target = VrnClientSocket(to.c_str(), true).address;
  vrnlog(3, "%s: %s is relayed to %s", name.c_str(), address.c_str(), to.c_str());
}

void Rule::accept_callers() {
  if (aioFiles() == 0) aioStart(&server);
}

// Deletes this, when its stop is confirmed.
void Rule::retire() {
  vrnlog(3, "%s: %s is not served any more", name.c_str(), address.c_str());
  retired = true;
  if (aioStop(&server)) delete this;
}

void Rule::aioRemoved(VrnFile*, bool, bool) {
  if (retired) delete this;
}

// Without a descriptor left, the next caller waits until accept_callers() is called again.
void Rule::aioReady(VrnFile*) {
  try {
    std::unique_ptr<VrnSocket> caller(server.accept());
    if (!caller && (errno == EMFILE || errno == ENFILE)) {
      vrnlog(1, "%s: out of descriptors", name.c_str());
      aioStop(&server);
    }
    if (caller) connect(std::move(caller));
  } catch (...) {
    vrnlog(1, "%s: %s", name.c_str(), VrnException::handler().c_str());
  }
}

void Rule::connect(std::unique_ptr<VrnSocket> caller) const {
  auto* const connection = new Connection(name, std::move(caller));
  try {
    connection->connect(target);
  } catch (...) {
    vrnlog(1, "%s: %s", connection->name.c_str(), VrnException::handler().c_str());
    connection->end("not connected");
  }
}
