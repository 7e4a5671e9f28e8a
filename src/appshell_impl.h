#pragma once
// The state and the logic behind the application object.

#include "vornfc/config.h"
#include "vornfc/evtmgr.h"
#include "vornfc/log.h"
#include "vornsupport/support.h"

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace vornfc {

class VrnAppShell;

struct ImplAppShell : VrnSignalHandler {
  ImplAppShell(VrnAppShell* shell, VrnLogSpec* spec, const char* projectName, const char* suffix,
               const char* appDescription, bool lateEvtMgr);
  ~ImplAppShell() override;

  // The life of the process, in order.
  int start(int argc, const char* const* argv) noexcept;
  void unsafe_start(int argc, const char* const* argv);
  bool parse_command_line(int argc, const char* const* argv, gnl_init_ctrl* ctrl);
  static VrnEvtMgr* take_event_manager();
  void configure();
  void daemonise(const char* directory);
  void run();
  void terminate();
  void shutdown() noexcept;

  static int do_cmdline_opt(_gnl_cmdlin_ctrl* ctrl, int isSwitch, int opt, const char* arg);
  int parse_arg(int isSwitch, int opt, const char* arg);
  void adopt_config(std::unique_ptr<VrnConfig> content, const std::string& group);
  bool wants_own_logger() const { return !logger_group.empty() || !logger_tag.empty(); }

  void set_logger(VrnLogSpec* spec);
  void delete_logger();
  void reconfigure();

  void signalReceived(int signo) override;
  void signalStopped(int signo) override;
  const char* sigtag() const override { return "AppShell"; }

  VrnAppShell* const owner;
  VrnLog* logger = nullptr;  // owned while logger_alive
  std::atomic<bool> logger_alive{
      false};  // false although `logger` is set: it could not be replaced
  std::unique_ptr<VrnLogSpec> pending_spec;
  VrnConfigMgr* config = nullptr;
  std::vector<std::unique_ptr<VrnConfigMgr>> configs;  // `config` and those that -C replaced
  std::atomic<bool> stop_requested{false};
  std::atomic<bool> stop_delivered{false};  // an event manager was there to be stopped
  const bool late_evtmgr;
  std::string title;
  int params[2] = {0, 0};
  std::string option_letters;
  std::string option_extra;
  bool daemonised = false;
  bool daemon_requested = false;
  std::string workdir;
  std::string logger_group;
  std::string logger_tag;
};

}  // namespace vornfc
