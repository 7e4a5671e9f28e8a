#include "appshell_impl.h"

#include "text.h"
#include "vornfc/appshell.h"
#include "vornfc/evtmgr_native.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace vornfc {

namespace {

constexpr int NotRecognised = 3;  // the result of appParseArg(), and of a callback that failed

// One of `project` and `description` is not null.
std::string make_title(const char* project, const char* suffix, const char* description) {
  // cppcheck-suppress nullPointerRedundantCheck
  std::string title = description ? description : project;
  if (description && project) title.append(": ").append(project);
  if (suffix) title.append(" ").append(suffix);
  return title;
}

// The text before the first ':' and the text after it; without one, all of it and nothing.
std::pair<std::string, std::string> split_at_colon(const std::string& text) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return {text, ""};
  return {text.substr(0, colon), text.substr(colon + 1)};
}

// The calling process goes on as the child; the parent leaves without exit handlers.
void become_child() {
  const pid_t pid = fork();
  if (pid == -1) throw VrnException(2, "Daemon failed to fork");
  if (pid != 0) _exit(0);
}

}  // namespace

ImplAppShell::ImplAppShell(VrnAppShell* shell, VrnLogSpec* spec, const char* projectName,
                           const char* suffix, const char* appDescription, bool lateEvtMgr)
    : owner(shell),
      pending_spec(spec),
      late_evtmgr(lateEvtMgr),
      title(make_title(projectName, suffix, appDescription)) {}

ImplAppShell::~ImplAppShell() {
  vrnlog(4, "AppShell.dtor - %s", title.c_str());
  VrnEvtMgr::destroy();
  config = nullptr;
  configs.clear();
  pending_spec.reset();
  delete_logger();
}

int ImplAppShell::start(int argc, const char* const* argv) noexcept {
  set_logger(pending_spec.get());
  pending_spec.reset();
  vrnlog(4, "AppShell.start: this=0x%x, pimpl=0x%x, prognam=%s, argc=%d [%s]", address32(owner),
         address32(this), gnl_prognam ? gnl_prognam : "<NULL>", argc, title.c_str());
  int result = 0;
  try {
    unsafe_start(argc, argv);
    vrnlog(4, "AppShell.start: terminating [%s]", title.c_str());
  } catch (...) {
    const std::string text = VrnException::handler();
    fprintf(stderr, "\n%s\n\n", text.c_str());
    vrnlog(1, "AppShell.start: %s", text.c_str());
    result = 1;
  }
  // Without a run, timers and watchers that were started could not be stopped any more.
  if (const auto evtmgr = dynamic_cast<VrnEvtMgrNative*>(VrnEvtMgr::instance(1))) evtmgr->abandon();
  shutdown();
  return result;
}

void ImplAppShell::unsafe_start(int argc, const char* const* argv) {
  gnl_init_ctrl ctrl{};
  if (!parse_command_line(argc, argv, &ctrl)) return;
  configure();
  if (!late_evtmgr) VrnAppShell::evtmgr = take_event_manager();
  if (daemon_requested) {
    daemonise(workdir.c_str());
    ctrl.flags |= GNL_INIT_DAEMON;
  }
  if (gnl_init(&ctrl) != 0) throw VrnException(10, "Initialisation failed [%s]", gnl_usrmsg);
  errno = 0;
  if (owner->appInit() != 0) terminate();
  VrnEvtMgr* const evtmgr = take_event_manager();
  VrnAssertFull(evtmgr != nullptr, "AppShell: No Event Manager !");
  // Not written again when it is set: threads of the application may be reading it.
  if (VrnAppShell::evtmgr != evtmgr) VrnAppShell::evtmgr = evtmgr;
  // It has not heard of a stop that was asked for before it existed.
  if (stop_requested && !stop_delivered) evtmgr->stopDispatcher();
  if (daemon_requested) daemonise(workdir.c_str());
  vrnlog(4, "AppShell.start - %s entering appRun()", title.c_str());
  owner->appRun();
}

VrnEvtMgr* ImplAppShell::take_event_manager() {
  VrnEvtMgr* const evtmgr = VrnEvtMgr::instance(0);
  if (const auto native = dynamic_cast<VrnEvtMgrNative*>(evtmgr)) native->run_expected = true;
  return evtmgr;
}

// False: the start ends here, quietly.
bool ImplAppShell::parse_command_line(int argc, const char* const* argv, gnl_init_ctrl* ctrl) {
  ctrl->has_cmdlin = 1;
  ctrl->cmdlin.callback = do_cmdline_opt;
  ctrl->cmdlin.user = this;
  if (owner->appSetup(ctrl) != 0) return false;
  if (!option_extra.empty()) ctrl->cmdlin.param_text = option_extra.c_str();
  option_letters += "hD:C:L:";
  ctrl->cmdlin.opt_letters = option_letters.c_str();
  ctrl->cmdlin.min_params = params[0];
  ctrl->cmdlin.max_params = params[1];
  if (gnl_cmdlin(argc, argv, &ctrl->cmdlin) != 0) {
    fprintf(stderr, "Invalid command-line [%s]\n", gnl_usrmsg);
    owner->appUsage();
    terminate();
  }
  return !stop_requested;
}

int ImplAppShell::do_cmdline_opt(_gnl_cmdlin_ctrl* ctrl, int isSwitch, int opt, const char* arg) {
  const auto shell = static_cast<ImplAppShell*>(ctrl->user);
  try {
    return shell->parse_arg(isSwitch, opt, arg);
  } catch (...) {
    vrnlog(1, "AppShell.args: %s", VrnException::handler().c_str());
  }
  try {
    shell->terminate();
    return 0;
  } catch (...) {
    vrnlog(1, "AppShell: terminate() threw [%s]", VrnException::handler().c_str());
    return NotRecognised;
  }
}

int ImplAppShell::parse_arg(int isSwitch, int opt, const char* arg) {
  const std::string text = arg ? arg : "";
  switch (isSwitch ? opt : 0) {
    case 'C': {
      const auto [filename, group] = split_at_colon(text);
      adopt_config(std::make_unique<VrnConfig>(filename), group);
      return 0;
    }
    case 'D':
      daemon_requested = true;
      workdir = text == "-" ? "" : text;
      return 0;
    case 'L': {
      const auto [group, tag] = split_at_colon(text);
      logger_group = group;
      if (group.size() < text.size()) logger_tag = tag;
      return 0;
    }
    case 'h':
      owner->appUsage();
      terminate();
      return 0;
    default: break;
  }
  const int result = owner->appParseArg(isSwitch, opt, arg);
  if (result == NotRecognised) {
    throw VrnException(3, "Unexpected command-line %s=%d (%s)", isSwitch ? "switch" : "parameter",
                       opt, arg ? arg : "<NULL>");
  }
  return result;
}

// An earlier manager stays alive: the application may have attached observers to it.
void ImplAppShell::adopt_config(std::unique_ptr<VrnConfig> content, const std::string& group) {
  auto manager = std::make_unique<VrnConfigMgr>(content.get(), group);
  static_cast<void>(content.release());
  configs.push_back(std::move(manager));
  config = configs.back().get();
}

void ImplAppShell::configure() {
  if (!config) adopt_config(std::make_unique<VrnConfig>(), "");
  if (!wants_own_logger()) return;
  VrnLogSpec spec;
  spec.logger = VrnLog::configCreate(config->config, logger_group, logger_tag.c_str());
  set_logger(&spec);
}

void ImplAppShell::delete_logger() {
  if (logger_alive.exchange(false)) delete logger;
}

// The old logger goes first: both may have the same file. When the new one cannot be made, the old
// address stays, as a mark, and log lines go to standard error.
void ImplAppShell::set_logger(VrnLogSpec* spec) {
  delete_logger();
  logger = spec ? spec->synthesise() : VrnLog::defaultCreate();
  logger_alive = true;
}

void ImplAppShell::reconfigure() {
  vrnlog(3, "AppShell: Issuing Reconfigure for %s", config->config->filename().c_str());
  config->config->update();
  config->notifyObservers();
  if (!wants_own_logger() || !logger_alive) return;
  const std::string text = config->config->value(logger_group, VrnLog::CFG_LEVEL, false, 0);
  const int previous = logger->level(text.c_str());
  const int current = logger->level(text.c_str());  // what the first call made of it
  if (previous == current) return;
  // The name is copied: the next look-up may reuse its place.
  char previous_name[16];
  snprintf(previous_name, sizeof previous_name, "%s", trc_lvl2sym(previous));
  vrnlog(0, "AppShell: Trace level %s from %s to %s",
         previous < current ? "increased" : "decreased", previous_name, trc_lvl2sym(current));
}

void ImplAppShell::run() {
  VrnAssertFull(VrnAppShell::evtmgr != nullptr, "AppShell: No Event Manager !");
  VrnAppShell::evtmgr->startDispatcher();
}

void ImplAppShell::terminate() {
  // The flag comes first: whoever creates the event manager after our look-up finds it set.
  const bool previous = stop_requested.exchange(true);
  vrnlog(4, "AppShell.terminate: stopflag=%s [%s]", yes_no(previous), title.c_str());
  VrnEvtMgr* const evtmgr = VrnEvtMgr::instance(1);
  if (!evtmgr) return;
  stop_delivered = true;
  evtmgr->stopDispatcher();
}

void ImplAppShell::shutdown() noexcept {
  vrnlog(4, "AppShell.shutdown - %s", title.c_str());
  try {
    owner->appTerminated();
  } catch (...) {
    vrnlog(1, "AppShell.shutdown: %s", VrnException::handler().c_str());
  }
}

void ImplAppShell::daemonise(const char* directory) {
  if (daemonised || !VrnAppShell::evtmgr) return;
  daemonised = true;
  daemon_requested = false;
  const char* const env = getenv(VrnAppShell::ENV_WORKDIR);
  const std::string chosen = directory && *directory ? directory
                             : env                   ? env
                                                     : VrnAppShell::DFLT_WORKDIR;
  workdir = chosen;
  const pid_t starter = getpid();
  if (getpgrp() == getpid()) become_child();  // setsid() refuses a group leader
  if (setsid() == -1) throw VrnException(2, "Daemon failed to create process session");
  become_child();
  if (chdir(workdir.c_str()) == -1) {
    throw VrnException(2, "Daemon failed to set workding dir to %s", workdir.c_str());
  }
  umask(0);
  for (const int signo : {SIGINT, SIGHUP, SIGPIPE, SIGUSR2}) {
    VrnAppShell::evtmgr->stopSignal(nullptr, signo, true);
  }
  VrnAppShell::evtmgr->startSignal(this, SIGUSR1);
  VrnAppShell::evtmgr->startSignal(this, SIGTERM);
  vrnlog(4, "AppShell: Daemonised from PID=%lu to %lu [%s]", static_cast<unsigned long>(starter),
         static_cast<unsigned long>(getpid()), title.c_str());
}

void ImplAppShell::signalReceived(int signo) {
  if (signo == SIGUSR1) reconfigure();
  if (signo == SIGTERM) terminate();
}

void ImplAppShell::signalStopped(int signo) {
  vrnlog(4, "AppShell.signalStopped: sig=%d", signo);
}

}  // namespace vornfc
