#define VORNFC_LOG_IMPLEMENTATION  // log() itself, not its short form, is in this file
#include "vornfc/log.h"

#include "text.h"
#include "unique_fd.h"
#include "vornfc/config.h"
#include "vornfc/exception.h"
#include "vornfc/mutex.h"
#include "vornfc/utils.h"
#include "vornsupport/support.h"

#include <fcntl.h>
#include <pthread.h>
#include <stdio_ext.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

namespace vornfc {

namespace {

enum CycleFreq { Never = 1, Hourly, Daily, Monthly };
enum TimePrec { None = 1, Milli, Micro };

constexpr int DFLT_LEVEL = 3;

// The words of a setting and their codes; `dflt` is the code of an absent word.
struct Vocabulary {
  struct Word {
    const char* text;  // null: unused
    int code;
  };
  const char* setting;
  int dflt;
  Word words[4];
};

constexpr Vocabulary PRECISIONS{
    "precision", Milli, {{"NONE", None}, {"MILLI", Milli}, {"MICRO", Micro}, {nullptr, 0}}};
constexpr Vocabulary FREQUENCIES{
    "cycle-frequency",
    Never,
    {{"NEVER", Never}, {"HOURLY", Hourly}, {"DAILY", Daily}, {"MONTHLY", Monthly}}};

bool is_blank(const char* text) {
  return !text || !*text;
}

int code_of(const Vocabulary& vocabulary, const char* text) {
  if (is_blank(text)) return vocabulary.dflt;
  for (const auto& word : vocabulary.words) {
    if (word.text && strcasecmp(word.text, text) == 0) return word.code;
  }
  throw VrnException(9, "Invalid VrnLog %s (%s)", vocabulary.setting, text);
}

int level_of(const char* text) {
  if (is_blank(text)) return DFLT_LEVEL;
  const bool number = std::isdigit(static_cast<unsigned char>(*text)) != 0;
  const long level = number ? std::strtol(text, nullptr, 10) : trc_sym2lvl(text);
  if (level < 1) throw VrnException(9, "Invalid VrnLog trace level (%s)", text);
  return level > INT_MAX ? INT_MAX : static_cast<int>(level);
}

std::string default_path() {
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "/tmp") + "/VORN.LOG";
}

bool is_directory(const std::string& path) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0) return S_ISDIR(info.st_mode);
  if (errno == ENOENT) return false;
  throw VrnException(2, "Failed to stat logfile=%s", path.c_str());
}

// The cycle stamp, YYMMDDHH as a decimal number.
unsigned long stamp_of(const struct tm& now) {
  return static_cast<unsigned long>((now.tm_year - 100) * 1000000L + (now.tm_mon + 1) * 10000L +
                                    now.tm_mday * 100L + now.tm_hour);
}

// How much of a stamp tells one period from the next, and the least width of a stamp in file names.
struct Period {
  unsigned long divisor;
  int width;
};

Period period_of(int cyclefreq) {
  switch (cyclefreq) {
    case Hourly: return {1, 8};
    case Daily: return {100, 6};
    case Monthly: return {10000, 4};
    default: throw VrnException(6, "Invalid Logger frequency=%d", cyclefreq);
  }
}

// Whether the last line of the file has no line end, as a full disk leaves it.
bool ends_in_mid_line(std::FILE* file, const std::string& path) {
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size == 0) return false;
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));  // `file` may not be read
  char last = '\n';
  return pread(fd.get(), &last, 1, info.st_size - 1) == 1 && last != '\n';
}

// Puts errno back at the end of a scope.
class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { restore(); }
  void restore() const { errno = value; }

 private:
  const int value = errno;
};

// Holds the lock of a stream to the end of a scope; null: does nothing.
class StreamGuard {
 public:
  explicit StreamGuard(std::FILE* guarded) : stream(guarded) {
    if (stream) flockfile(stream);
  }
  StreamGuard(const StreamGuard&) = delete;
  StreamGuard& operator=(const StreamGuard&) = delete;
  ~StreamGuard() {
    if (stream) funlockfile(stream);
  }

 private:
  std::FILE* const stream;
};

// The process's id without the system call that each getpid() is.
pid_t process_id() {
  static std::atomic<pid_t> known{0};  // 0: not known
  static const bool told_of_forks = pthread_atfork(nullptr, nullptr, [] { known = 0; }) == 0;
  pid_t id = known.load(std::memory_order_relaxed);
  if (id == 0) {
    id = getpid();
    if (told_of_forks) known = id;
  }
  return id;
}

// "<pid>-<tid> " of the calling thread, put together once in a thread's life in a process.
std::string_view thread_ids() {
  __attribute__((tls_model("initial-exec"))) static thread_local struct {
    pid_t process = 0;  // that `text` names; 0: none
    unsigned length = 0;
    char text[40];
  } ids;
  const pid_t process = process_id();
  if (ids.process != process) {
    const int length = std::snprintf(ids.text, sizeof ids.text, "%d-%lu ", process, pthread_self());
    ids.length = static_cast<unsigned>(length);
    ids.process = process;
  }
  return {ids.text, ids.length};
}

// A record being put together: at most 2047 characters, what does not fit is cut.
class Record {
 public:
  Record() { text[0] = '\n'; }

  void add(std::string_view more) {
    const std::size_t count = std::min(more.size(), MAX_END - end);
    std::memcpy(text + end, more.data(), count);
    end += count;
  }

  // A time format whose result is empty or does not fit adds nothing.
  void addTime(const std::string& timefmt, const struct tm& now) {
    if (timefmt.empty()) {
      add("%04d%02d%02d-%02d:%02d:%02d", now.tm_year + 1900, now.tm_mon + 1, now.tm_mday,
          now.tm_hour, now.tm_min, now.tm_sec);
    } else {
      end += std::strftime(text + end, MAX_END + 1 - end, timefmt.c_str(), &now);
    }
  }

  void addFraction(int timeprec, long micros) {
    if (timeprec == Milli) addFraction(micros / 1000, 3);
    if (timeprec == Micro) addFraction(micros, 6);
  }

  __attribute__((format(printf, 2, 3))) void add(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    add(ap, fmt);
    va_end(ap);
  }

  __attribute__((format(printf, 3, 0))) void add(va_list ap, const char* fmt) {
    va_list again;
    va_copy(again, ap);
    if (!addPlain(ap, fmt)) {
      text[end] = '\0';  // what remains when the arguments cannot be formatted
      std::vsnprintf(text + end, MAX_END + 1 - end, fmt, again);
      end += std::strlen(text + end);
    }
    va_end(again);
  }

  std::size_t length() const { return end - 1; }
  void cut(std::size_t length) { end = length + 1; }  // keeps so much of it
  std::string_view view() const { return {text + 1, length()}; }

  // The whole record and its line end; with `on_new_line` also a line end ahead of it.
  std::string_view line(bool on_new_line) {
    text[end] = '\n';
    const std::size_t begin = on_new_line ? 0 : 1;
    return {text + begin, end + 1 - begin};
  }

 private:
  static constexpr std::size_t MAX_END = 2048;

  // Adds what vsnprintf() does, in a fraction of its time, for a format with none but the plain
  // conversions that most records have. False: it has others, and nothing was added.
  __attribute__((format(printf, 3, 0))) bool addPlain(va_list ap, const char* fmt) {
    const std::size_t begin = end;
    std::string_view rest = fmt;
    for (std::size_t at; (at = rest.find('%')) != rest.npos; rest.remove_prefix(1)) {
      add(rest.substr(0, at));
      rest.remove_prefix(at + 1);
      const bool is_long = !rest.empty() && rest.front() == 'l';
      if (is_long) rest.remove_prefix(1);
      const char conversion = rest.empty() ? '\0' : rest.front();
      if (conversion == 'd') {
        addNumber(is_long ? va_arg(ap, long) : va_arg(ap, int), 10);
      } else if (conversion == 'u' || conversion == 'x') {
        addNumber(is_long ? va_arg(ap, unsigned long) : va_arg(ap, unsigned),
                  conversion == 'u' ? 10 : 16);
      } else if (const char* word; conversion == 's' && !is_long && (word = va_arg(ap, char*))) {
        add(std::string_view(word));
      } else {
        end = begin;
        return false;
      }
    }
    add(rest);
    return true;
  }

  template <class Number>
  void addNumber(Number number, int base) {
    char digits[20];  // of 64 bits, with a sign
    const char* const digits_end =
        std::to_chars(std::begin(digits), std::end(digits), number, base).ptr;
    add(std::string_view(digits, static_cast<std::size_t>(digits_end - digits)));
  }

  void addFraction(long number, int digits) {
    char decimal[] = ".000000";
    for (int i = digits; i > 0; number /= 10) decimal[i--] = static_cast<char>('0' + number % 10);
    add(std::string_view(decimal, static_cast<std::size_t>(digits) + 1));
  }

  char text[MAX_END + 1];  // the line end ahead; the record; its terminator, later its line end
  std::size_t end = 1;
};

}  // namespace

// The state behind a log. `mutex` guards flog, cyclestamp, torn and the record; nothing else
// changes after the construction.
struct ImplLog {
  ImplLog(std::FILE* stream, bool owns, int frequency, const char* format, int precision);
  ~ImplLog() { close_file(); }
  ImplLog(const ImplLog&) = delete;
  ImplLog& operator=(const ImplLog&) = delete;

  void begin_record(const struct timeval& time);
  bool cycle(const struct tm* now);
  void write();

  void open_file(const std::string& name);
  void close_file();
  bool write_stream(std::string_view line);

  std::FILE* flog;
  const int cyclefreq;
  const std::string timefmt;
  const int timeprec;
  std::string filepath;   // of the file, or the stem of the names of cycled files
  std::string tagprefix;  // the tag and "-"; empty when the tag is in the file name
  const bool owner;
  unsigned long cyclestamp = 0;  // of the last cycle, failed or not
  bool torn = false;             // the file ends in the middle of a line

  // The last record. The start of it, its second as text, is made once in a second: it costs more
  // than all the rest of a short record.
  Record record;
  std::size_t stamp_length = 0;
  time_t second = 0;  // of `record`; as a local time in `local`
  struct tm local = {};
  bool stamped = false;  // `record` has a second

  VrnMutex mutex{"VrnLog"};
};

ImplLog::ImplLog(std::FILE* stream, bool owns, int frequency, const char* format, int precision)
    : flog(stream),
      cyclefreq(frequency),
      timefmt(format ? format : ""),
      timeprec(precision),
      owner(owns) {}

void ImplLog::open_file(const std::string& name) {
  flog = std::fopen(name.c_str(), "ae");
  if (!flog) throw VrnException(2, "Failed to open logfile=%s", name.c_str());
  torn = ends_in_mid_line(flog, name);
}

void ImplLog::close_file() {
  if (owner && flog) std::fclose(flog);
  flog = nullptr;
}

// A cycle that failed leaves no file open, and so is tried again whatever the stamp.
bool ImplLog::cycle(const struct tm* now) {
  if (cyclefreq == Never) return false;
  if (!now) throw VrnException(3, "VrnLog.cycle: Null time");
  const unsigned long stamp = stamp_of(*now);
  const Period period = period_of(cyclefreq);
  if (flog && stamp / period.divisor == cyclestamp / period.divisor) return false;

  cyclestamp = stamp;
  close_file();
  char suffix[32];  // the whole stamp in every case; the width only pads
  std::snprintf(suffix, sizeof suffix, "-%0*lu", period.width, stamp);
  open_file(filepath + suffix);
  return true;
}

// Leaves the time to the second in the record, and nothing else. A time that goes back is a second
// like any other.
void ImplLog::begin_record(const struct timeval& time) {
  if (!stamped || time.tv_sec != second) {
    second = time.tv_sec;
    local = {};
    localtime_r(&second, &local);
    record.cut(0);
    record.addTime(timefmt, local);
    stamp_length = record.length();
    stamped = true;
  }
  record.cut(stamp_length);
}

// One write for a record, as a rule, so that it stays whole beside those of other processes.
void ImplLog::write() {
  if (!flog) return;
  const std::string_view line = record.line(torn);
  if (!owner) {
    torn = !write_stream(line);
    return;
  }
  // A terminal that a signal interrupts takes a part; a full disk fails the next time.
  for (std::string_view rest = line; !rest.empty();) {
    const ssize_t written = ::write(fileno(flog), rest.data(), rest.size());
    if (written == -1 && errno == EINTR) continue;
    if (written <= 0) return;
    // cppcheck-suppress containerOutOfBounds  // the rest is not empty here
    torn = rest[static_cast<std::size_t>(written) - 1] != '\n';
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

// The stream is shared with the application, so the record takes its way through the buffer. False:
// the record is lost and, as a stream does not tell how much of it was written, may be torn.
bool ImplLog::write_stream(std::string_view line) {
  const bool done =
      std::fwrite(line.data(), 1, line.size(), flog) == line.size() && std::fflush(flog) == 0;
  if (!done) __fpurge(flog);  // nothing of a lost record comes out later
  return done;
}

VrnLog::VrnLog(const char* apptag, const char* filename, int cyclefreq, int level,
               const char* timefmt, int timeprec)
    : threshold(level),
      impl(std::make_unique<ImplLog>(nullptr, true, cyclefreq, timefmt, timeprec)) {
  const char* prognam = gnl_prognam ? gnl_prognam : "Unknown";
  const std::string tag = is_blank(apptag) ? prognam : apptag;
  impl->filepath = is_blank(filename) ? default_path() : filename;
  if (is_directory(impl->filepath)) {
    impl->filepath += "/" + tag;
  } else {
    impl->tagprefix = tag + "-";
  }
  if (cyclefreq == Never) impl->open_file(impl->filepath);
}

VrnLog::VrnLog(std::FILE* stream, int level, const char* timefmt, int timeprec)
    : threshold(level), impl(std::make_unique<ImplLog>(stream, false, Never, timefmt, timeprec)) {}

VrnLog::~VrnLog() {
  try {
    log(4, "Logger Shutdown - flog=0x%x, owner=%s", address32(impl->flog), yes_no(impl->owner));
  } catch (...) {
    vrnlog(1, "VrnLog: Failed to record the shutdown [%s]", VrnException::handler().c_str());
  }
}

VrnLog* VrnLog::create(const char* apptag, const char* filename, const char* level,
                       const char* timefmt, const char* timeprec, const char* cyclefreq) {
  const int lvl = level_of(level);
  const int precision = code_of(PRECISIONS, timeprec);
  const int frequency = code_of(FREQUENCIES, cyclefreq);
  if (!is_blank(filename)) {
    if (strcasecmp(filename, "STDOUT") == 0) return new VrnLog(stdout, lvl, timefmt, precision);
    if (strcasecmp(filename, "STDERR") == 0) return new VrnLog(stderr, lvl, timefmt, precision);
  }
  return new VrnLog(apptag, filename, frequency, lvl, timefmt, precision);
}

VrnLog* VrnLog::configCreate(VrnConfig* cfg, const std::string& group, const char* apptag) {
  if (!cfg) {
    throw VrnException(3, "VrnLog.configCreate: Null VrnConfig for group=%s", group.c_str());
  }
  if (!apptag && !cfg->exists(group)) {
    throw VrnException(9, "Config: Logger group=%s is missing", group.c_str());
  }
  const std::string filename = cfg->value(group, CFG_FILENAME, false, 0);
  const std::string level = cfg->value(group, CFG_LEVEL, false, 0);
  const std::string timefmt = cfg->value(group, CFG_TIMEFMT, false, 0);
  const std::string timeprec = cfg->value(group, CFG_TIMEPREC, false, 0);
  const std::string cyclefreq = cfg->value(group, CFG_CYCLEFREQ, false, 0);
  return create(apptag, filename.c_str(), level.c_str(), timefmt.c_str(), timeprec.c_str(),
                cyclefreq.c_str());
}

std::string VrnLog::envname(const char* key) {
  return "VORNTRC_" + std::string(key);
}

VrnLog* VrnLog::defaultCreate() {
  const auto setting = [](const char* key) { return std::getenv(envname(key).c_str()); };
  return create(setting(CFG_APPTAG), setting(CFG_FILENAME), setting(CFG_LEVEL),
                setting(CFG_TIMEFMT), setting(CFG_TIMEPREC), setting(CFG_CYCLEFREQ));
}

int VrnLog::level(const char* text) {
  return threshold.exchange(level_of(text));
}

int VrnLog::level(int n) {
  char text[32];  // not the shared buffer of num2buf(): any thread may be here
  return level(num2buf(n, text));
}

bool VrnLog::cycle(struct tm* now) {
  const VrnMutexGuard guard(&impl->mutex);
  return impl->cycle(now);
}

// The level is looked at ahead of everything else: most calls in a program are for records that
// nobody wants now.
void VrnLog::log(int lvl, const char* fmt, ...) {
  if (lvl > threshold) return;
  va_list ap;
  va_start(ap, fmt);
  try {
    log(ap, lvl, fmt);
  } catch (...) {
    va_end(ap);
    throw;
  }
  va_end(ap);
}

// What log() is where its short form has looked at the level.
void VrnLog::record(int lvl, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  try {
    log(ap, lvl, fmt);
  } catch (...) {
    va_end(ap);
    throw;
  }
  va_end(ap);
}

// What does not depend on the time is put together ahead of the lock. The time is taken under the
// lock: records are in the order of their times, and no record can take a new period's log back to
// the old one.
void VrnLog::log(va_list ap, int lvl, const char* fmt) {
  if (lvl > threshold) return;
  const ErrnoKeeper caller_errno;
  Record rest;
  rest.add(std::string_view(" "));
  const char* const symbol = trc_lvl2sym(lvl);
  rest.add(std::string_view(symbol ? symbol : "(null)"));
  rest.add(std::string_view(" "));
  rest.add(impl->tagprefix);
  rest.add(thread_ids());
  caller_errno.restore();  // for a "%m" in the message
  rest.add(ap, fmt ? fmt : "<NULL>");

  // The stream's lock comes first: the application may hold it when it logs.
  const StreamGuard stream(impl->owner ? nullptr : impl->flog);
  const VrnMutexGuard guard(&impl->mutex);
  struct timeval time;
  gettimeofday(&time, nullptr);
  impl->begin_record(time);
  impl->cycle(&impl->local);
  impl->record.addFraction(impl->timeprec, time.tv_usec);
  impl->record.add(rest.view());
  impl->write();
}

VrnLog* VrnLogSpec::synthesise() {
  if (logger) return logger;
  if (stream) return new VrnLog(stream, level, timefmt.c_str(), timeprec);
  return new VrnLog(apptag.c_str(), filename.c_str(), cyclefreq, level, timefmt.c_str(), timeprec);
}

}  // namespace vornfc
