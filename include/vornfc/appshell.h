#pragma once
/// The application shell: the process's `main` and the one object that an application derives from.

#include "vornfc/export.h"

#include <cstdarg>
#include <memory>
#include <string>

struct gnl_init_ctrl;  // vornsupport/support.h

namespace vornfc {

class VrnConfigMgr;
class VrnEvtMgr;
class VrnLog;
struct ImplAppShell;
struct VrnLogSpec;

/// An application derives from this class, overrides the hooks it needs and defines one object, as
/// a rule a global one. The library's `main` finds that object and calls start(), which in turn
/// sets up the logger, calls appSetup(), parses the command line, reads the configuration, creates
/// the event manager, daemonises (-D), initialises the support library, calls appInit() and
/// appRun(), and at the end, whatever happened, appTerminated(). The exit status is 0 when there is
/// an application object, 1 when there is none.
///
/// Options of the shell's own: -h usage; -D DIR run as a daemon in DIR ("-": VORN_WORKDIR, or
/// "/tmp"); -C FILE[:GROUP] configuration file and its top-level group; -L GROUP[:APPTAG] logger
/// settings from a configuration group, and the tag in its records.
///
/// Threads: the start sequence, the hooks and (unless appRun() is overridden) the dispatcher run on
/// the thread that called `main`. Only appTerminate() may be called from any thread.
class VORNFC_EXPORT VrnAppShell {
 public:
  /// `logSpec`: the logger wanted; null: one by the VORNTRC_ environment variables. Owned from here
  /// on. The texts make up the title, "DESCRIPTION: PROJECT SUFFIX", and may be null, but not both
  /// `projectName` and `appDescription`. `lateEvtMgr`: the event manager is created after
  /// appInit(), which then runs in the foreground process even with -D. Throws VrnException 6
  /// "Duplicate VrnAppShell", or 3 when there is nothing to make a title of.
  VrnAppShell(VrnLogSpec* logSpec, const char* projectName, const char* suffix,
              const char* appDescription, bool lateEvtMgr = false);
  virtual ~VrnAppShell();
  VrnAppShell(const VrnAppShell&) = delete;
  VrnAppShell& operator=(const VrnAppShell&) = delete;

  /// Runs the whole life of the process; `main` calls it, once. 0 after a normal run, also one that
  /// ended at a bad command line; 1 after an exception, which was printed and logged. Throws
  /// nothing: a failure to set up the first logger ends the process through std::terminate().
  int start(int argc, const char* const* argv);

  void appTerminate();  ///< Ends the run, or the start sequence at its next check. Any thread.

  /// Detaches the process and makes SIGUSR1 reconfigure and SIGTERM terminate it; SIGINT, SIGHUP,
  /// SIGPIPE and SIGUSR2 are ignored. SIGUSR1 and SIGTERM are taken over by the first turn of the
  /// event loop: sent before, they end the process. `workdir` null or empty: VORN_WORKDIR, or
  /// "/tmp". Does nothing before the event manager exists, or the second time. Before any thread is
  /// started. Throws VrnException 2 when a step fails; the starting process has then left with
  /// status 0.
  void appDaemonise(const char* workdir);

  /// Sets the option letters (as for getopt, "vx:") and the text that describes the parameters.
  /// Before the command line is parsed. Throws VrnException 3 when a text is null.
  void appSetOpts(const char* optLetters, const char* optExtra);

  /// Sets the two integers handed to gnl_cmdlin: the least and (0: none) the greatest number of
  /// parameters. Before the command line is parsed.
  void appSetParams(int first, int second);

  const std::string& appTitle() const;  ///< As made at construction; valid as long as the shell.

  VrnConfigMgr* appConfig() const;  ///< Owned by the shell; null before the configuration step.

  /// Owned by the shell; null before start(). After a failed appSetLogger() it is the address of
  /// the logger that is gone, and not to be used.
  VrnLog* appLogger() const;

  /// Destroys the logger and makes the one that `spec` (not owned; null: the environment)
  /// describes. Throws what its creation throws; log lines then go to standard error. Takes no
  /// lock, so no other thread logs meanwhile.
  void appSetLogger(VrnLogSpec* spec);

  static VrnAppShell* singleton;    ///< The application object, null when there is none.
  static VrnEvtMgr* evtmgr;         ///< Null before it is created. Deleted with the shell.
  static const char* ENV_WORKDIR;   ///< "VORN_WORKDIR"
  static const char* DFLT_WORKDIR;  ///< "/tmp"

  // Hooks. What one throws ends the start sequence: printed, logged, and start() returns 1.

  /// Before the command line is parsed; may change any field of the record that gnl_cmdlin and
  /// gnl_init get. Non-zero: end quietly.
  virtual int appSetup(gnl_init_ctrl* ctrl);

  /// An option that is not the shell's (`isSwitch` non-zero, `opt` its letter, `arg` its argument
  /// or null), or a parameter (`isSwitch` 0, `opt` its number, `arg` its text). 3: not recognised,
  /// which is logged and ends the start. Any other result is handed to gnl_cmdlin. What it throws
  /// is logged and ends the start.
  virtual int appParseArg(int isSwitch, int opt, const char* arg);

  virtual int appInit();  ///< Everything is ready. Non-zero: the run that follows returns at once.
  virtual void appRun();  ///< Runs the dispatcher until it is stopped.
  virtual void appTerminated();  ///< The last thing start() does; an exception is logged.

  /// Prints the usage to standard error. Options of the application's own are not in it.
  virtual void appUsage() const;

 private:
  friend void vrnlog(va_list ap, int level, const char* fmt);
  VrnLog* usableLogger() const;  // null: log lines go to standard error

  std::unique_ptr<ImplAppShell> impl;
};

}  // namespace vornfc
