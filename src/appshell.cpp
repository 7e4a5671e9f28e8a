#include "vornfc/appshell.h"

#include "appshell_impl.h"
#include "text.h"
#include "vornfc/evtmgr.h"
#include "vornfc/exception.h"
#include "vornfc/utils.h"
#include "vornsupport/support.h"

#include <cstdio>
#include <cstring>

// The process's entry point: an application links the library and defines no main of its own.
VORNFC_EXPORT int main(int argc, char** argv) {
  using vornfc::VrnAppShell;
  using vornfc::vrnlog;
  static char unnamed[] = "";
  char* const path = argc > 0 ? argv[0] : unnamed;
  char* const slash = strrchr(path, '/');
  gnl_prognam = slash ? slash + 1 : path;
  vrnlog(4, "main: '%s' Starting", gnl_prognam);
  if (!VrnAppShell::singleton) {
    vrnlog(1, "No Application object found !");
    return 1;
  }
  VrnAppShell::singleton->start(argc, argv);  // whatever it returns, there was an application
  vrnlog(4, "main: '%s' Exiting", gnl_prognam);
  return 0;
}

namespace vornfc {

VrnAppShell* VrnAppShell::singleton = nullptr;
VrnEvtMgr* VrnAppShell::evtmgr = nullptr;
const char* VrnAppShell::ENV_WORKDIR = "VORN_WORKDIR";
const char* VrnAppShell::DFLT_WORKDIR = "/tmp";

VrnAppShell::VrnAppShell(VrnLogSpec* logSpec, const char* projectName, const char* suffix,
                         const char* appDescription, bool lateEvtMgr) {
  if (singleton) {
    vrnlog(1, "Duplicate VrnAppShell - old=0x%x, new=0x%x", address32(singleton), address32(this));
    throw VrnException(6, "Duplicate VrnAppShell");
  }
  VrnAssertFull(projectName || appDescription,
                "AppShell: project-name and app-description both null");
  singleton = this;
  try {
    impl = std::make_unique<ImplAppShell>(this, logSpec, projectName, suffix, appDescription,
                                          lateEvtMgr);
  } catch (...) {
    singleton = nullptr;
    throw;
  }
  vrnlog(4, "AppShell.ctor - this=0x%x, pimpl=0x%x, prognam=%s [%s]", address32(this),
         address32(impl.get()), gnl_prognam ? gnl_prognam : "<NULL>", impl->title.c_str());
}

VrnAppShell::~VrnAppShell() {
  // Released only afterwards: what is logged while it goes down still finds the logger.
  delete impl.get();
  static_cast<void>(impl.release());
  singleton = nullptr;
}

int VrnAppShell::start(int argc, const char* const* argv) {
  return impl->start(argc, argv);
}

void VrnAppShell::appTerminate() {
  impl->terminate();
}

void VrnAppShell::appDaemonise(const char* workdir) {
  impl->daemonise(workdir);
}

void VrnAppShell::appSetOpts(const char* optLetters, const char* optExtra) {
  VrnAssertFull(optLetters && optExtra, "AppShell: Null option text for %s", impl->title.c_str());
  impl->option_letters = optLetters;
  impl->option_extra = optExtra;
}

void VrnAppShell::appSetParams(int first, int second) {
  impl->params[0] = first;
  impl->params[1] = second;
}

const std::string& VrnAppShell::appTitle() const {
  return impl->title;
}

VrnConfigMgr* VrnAppShell::appConfig() const {
  return impl->config;
}

VrnLog* VrnAppShell::appLogger() const {
  return impl ? impl->logger : nullptr;
}

VrnLog* VrnAppShell::usableLogger() const {
  return impl && impl->logger_alive ? impl->logger : nullptr;
}

void VrnAppShell::appSetLogger(VrnLogSpec* spec) {
  impl->set_logger(spec);
}

int VrnAppShell::appSetup(gnl_init_ctrl*) {
  return 0;
}

int VrnAppShell::appParseArg(int, int, const char*) {
  return 3;
}

int VrnAppShell::appInit() {
  return 0;
}

void VrnAppShell::appRun() {
  impl->run();
}

void VrnAppShell::appTerminated() {}

void VrnAppShell::appUsage() const {
  const char* const program = gnl_prognam ? gnl_prognam : "<NULL>";
  fputs("\n", stderr);
  if (!impl->title.empty()) fprintf(stderr, "%s\n", impl->title.c_str());
  fputs("USAGE:\n", stderr);
  fprintf(stderr, "%s [-%c workdir] [-%c filename[:group]] [-%c group[:apptag]]\n", program, 'D',
          'C', 'L');
  fprintf(stderr, "%s -%c\n", program, 'h');
  fputs("\n", stderr);
  fprintf(stderr, "  -%c: Daemon process. Use hypen (-) to specify default working directory\n",
          'D');
  fprintf(stderr, "  -%c: Config file, and top-level group\n", 'C');
  fprintf(stderr, "  -%c: Logger's config group, and its application tag\n", 'L');
  fprintf(stderr, "  -%c: Display this usage synopsis\n", 'h');
  fputs("\n", stderr);
}

}  // namespace vornfc
