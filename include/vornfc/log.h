/// Log files: one time-stamped line for each record, trace levels, cycling by hour, day or month;
/// and the ways to a logger from words, a configuration group, the environment or a record of
/// settings.
#pragma once

#include "vornfc/export.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

namespace vornfc {

class VrnConfig;
struct ImplLog;

/// A log file, or a log onto an open stream. docs/log-format.md describes records and file names.
///
/// Threads: any thread may log, cycle and change the level at any time. Records of one log are
/// written whole and one after the other.
/// Locks: one internal mutex, taken by log() for a record that is written and by cycle(); under it
/// nothing of the application runs but `trc_lvl2sym`, which names the record's level.
/// Codes: a cycle frequency is 1 never, 2 hourly, 3 daily, 4 monthly; a precision, the fraction of
/// a second in a time stamp, is 1 none, 2 milliseconds, 3 microseconds.
class VORNFC_EXPORT VrnLog {
 public:
  // Names of the settings: items of a logger group and, after "VORNTRC_", environment variables.
  static constexpr const char* CFG_PRELIMS = "PRELIMS";  ///< For applications; read nowhere here.
  static constexpr const char* CFG_CYCLEFREQ = "CYCLEFREQ";  ///< A word, see create().
  static constexpr const char* CFG_TIMEPREC = "TIMEPREC";    ///< A word, see create().
  static constexpr const char* CFG_TIMEFMT = "TIMEFMT";      ///< A format of strftime.
  static constexpr const char* CFG_LEVEL = "LEVEL";          ///< A number from 1, or a symbol.
  static constexpr const char* CFG_FILENAME = "FILENAME";    ///< A file, directory or stream.
  static constexpr const char* CFG_APPTAG = "APPTAG";        ///< In the environment only.

  /// A log that owns its file. Every text is copied; null is the same as empty.
  ///
  /// `apptag`: empty: `gnl_prognam`, or "Unknown" when that is null.
  /// `filename`: empty: "VORN.LOG" in the directory that HOME names, in /tmp when HOME is unset. An
  /// existing directory stands for a file in it that is named by the tag; only then do the records
  /// not carry the tag.
  /// `cyclefreq`: with 1 the file is opened at once, for appending. With 2 to 4 the first record
  /// opens the first file; other numbers are refused by every record, see cycle().
  /// `level`: taken as it is, unlike level(). `timefmt`: for strftime; empty: "YYYYMMDD-hh:mm:ss".
  /// `timeprec`: a number that is not a precision is the same as 1.
  ///
  /// Throws VrnException 2 when the path cannot be examined (one that does not exist is no failure)
  /// or the file cannot be opened.
  VrnLog(const char* apptag, const char* filename, int cyclefreq, int level, const char* timefmt,
         int timeprec);

  /// A log onto `stream`, without tag and cycling. The stream stays the caller's, is never closed
  /// here and outlives the log. Null: records are dropped.
  VrnLog(std::FILE* stream, int level, const char* timefmt, int timeprec);

  /// Writes the record "Logger Shutdown - flog=0x%x, owner=%s" at level 4, which may open a file,
  /// then closes the file if it is owned. Does not throw: what prevents the record is logged at
  /// level 1 by vrnlog().
  ~VrnLog();

  VrnLog(const VrnLog&) = delete;
  VrnLog& operator=(const VrnLog&) = delete;

  /// A new logger, owned by the caller, from words; null is the same as empty.
  ///
  /// `level`: a number, read from the leading digits, or a level symbol; empty: 3.
  /// `timeprec`: "NONE", "MILLI" or "MICRO"; empty: MILLI. `cyclefreq`: "NEVER", "HOURLY", "DAILY"
  /// or "MONTHLY"; empty: NEVER. `filename`: "STDOUT" and "STDERR" stand for these streams, tag and
  /// cycle frequency are then not used. Words may be in either case.
  ///
  /// Throws VrnException 9 for a level below 1, then for another precision, then for another cycle
  /// frequency; and what the constructors throw.
  static VrnLog* create(const char* apptag, const char* filename, const char* level,
                        const char* timefmt, const char* timeprec, const char* cyclefreq);

  /// The same from the first values of the items FILENAME, LEVEL, TIMEFMT, TIMEPREC and CYCLEFREQ
  /// of a configuration group; a missing item is empty. The tag is `apptag`, never an item.
  ///
  /// A missing group throws VrnException 9 only when `apptag` is null; with any other tag, the
  /// empty one included, it is the same as an empty group. Throws VrnException 3 when `cfg` is
  /// null.
  static VrnLog* configCreate(VrnConfig* cfg, const std::string& group, const char* apptag);

  /// "VORNTRC_" and `key`. Throws std::logic_error when `key` is null.
  static std::string envname(const char* key);

  /// The same as create() from the environment variables of the settings, PRELIMS excepted; an
  /// unset one is empty.
  static VrnLog* defaultCreate();

  /// Sets the trace level, a number read from the leading digits or a level symbol, and returns the
  /// former one. Null or empty: 3. Throws VrnException 9, and changes nothing, when the level would
  /// be below 1: level 0 cannot be set.
  int level(const char* text);
  int level(int n);  ///< The same with a number.

  /// Starts a new file when `now`, a local time, is in another period than the last file, or when
  /// no file is open because the last cycle failed. Each record does this first. Returns whether a
  /// file was opened; false at once when the log never cycles.
  ///
  /// Throws VrnException 2 when the file cannot be opened: the former file is closed by then and
  /// the next call, as a rule the next record, tries again under its own time. Throws 6 when the
  /// cycle frequency is invalid, 3 when `now` is null.
  bool cycle(struct tm* now);

  /// Writes one record and flushes it; does nothing, and cycles no file, when `lvl` is above the
  /// trace level. A message that would make the record longer than 2047 characters is cut. `errno`
  /// is left alone, and "%m" in `fmt`, a printf format (null: "<NULL>"), is the caller's.
  ///
  /// Failed writes are not reported: the record is lost. When only a part of it reached the file,
  /// the next record starts on a new line. Throws what cycle() throws.
  void log(int lvl, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  /// The same with the arguments in `ap`, which the call uses up: the caller may only va_end() it.
  void log(va_list ap, int lvl, const char* fmt) __attribute__((format(printf, 4, 0)));

 private:
  void record(int lvl, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

  std::atomic<int> threshold;  // the trace level
  std::unique_ptr<ImplLog> impl;
};

// A record that nobody wants costs a comparison where the call stands, and not the call. Variable
// arguments can be handed on only by a compiler that knows how; others call log() itself.
#if defined(__GNUC__) && !defined(__clang__) && !defined(VORNFC_LOG_IMPLEMENTATION)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // log() itself has been checked
inline __attribute__((gnu_inline, always_inline)) void VrnLog::log(int lvl, const char* fmt, ...) {
  if (lvl <= threshold.load(std::memory_order_relaxed)) record(lvl, fmt, __builtin_va_arg_pack());
}
#pragma GCC diagnostic pop
#endif

/// The settings of a logger in numbers, for VrnAppShell. The texts are those of the constructors of
/// VrnLog; the numbers are handed over unchecked.
struct VORNFC_EXPORT VrnLogSpec {
  /// The logger that is meant: `logger` itself when set; else a new one on `stream` when set; else
  /// a new one for a file. The caller owns the result, `logger` included. Throws what the
  /// constructors of VrnLog throw.
  VrnLog* synthesise();

  VrnLog* logger = nullptr;     ///< Null: make one. Never deleted here.
  std::string apptag;           ///< For a file.
  std::string filename;         ///< For a file.
  std::FILE* stream = nullptr;  ///< Null: a file. Never closed here.
  int level = 3;                ///< The trace level.
  int cyclefreq = 1;            ///< For a file; 1 to 4, see VrnLog.
  std::string timefmt;          ///< For strftime; empty: the built-in format.
  int timeprec = 2;             ///< 1 to 3, see VrnLog.
};

}  // namespace vornfc
