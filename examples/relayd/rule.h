#pragma once
// One address that is served, and where its callers are connected to.

#include "vornfc/vornfc.h"

#include <netinet/in.h>

#include <memory>
#include <string>

struct Rule : vornfc::VrnAsyncReceiver {
  Rule(const std::string& rule, const std::string& listen, const std::string& to);
  void aim(const std::string& rule, const std::string& to);
  void accept_callers();
  void retire();
  void connect(std::unique_ptr<vornfc::VrnSocket> caller) const;
  void aioReady(vornfc::VrnFile* file) override;
  void aioRemoved(vornfc::VrnFile* file, bool hangup, bool error) override;

  std::string name;
  const std::string address;
  vornfc::VrnServerSocket server;
  sockaddr_in target{};
  bool retired = false;
};
