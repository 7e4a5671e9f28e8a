// A logger from any words: by create(), from a configuration group or from the environment. Each
// word is one line of the input; a second reading of them says whether the logger is made, or which
// exception is thrown. Operations follow: records at any level, new levels, time that passes,
// cycles. In the end the files are those that a model has, with the same content to the byte.

#include "clock.h"
#include "fuzzing.h"
#include "log_model.h"
#include "vornfc/config.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"

#include <limits.h>
#include <stdlib.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace {

using vornfc::VrnConfig;
using vornfc::VrnException;
using vornfc::VrnLog;

// ---- where files may be: a directory, which has the directory "dir" in it ----

class Playground {
 public:
  Playground() {
    std::string name = std::filesystem::temp_directory_path() / "vornfc_fuzz.XXXXXX";
    require(mkdtemp(name.data()) != nullptr, "no directory");
    top = name;
    clear();
    setenv("HOME", path().c_str(), 1);
  }
  Playground(const Playground&) = delete;
  Playground& operator=(const Playground&) = delete;
  ~Playground() { std::filesystem::remove_all(top); }

  std::string path() const { return top / "home"; }

  void clear() const {
    for (const auto& entry : std::filesystem::directory_iterator(top)) remove_all(entry.path());
    std::filesystem::create_directories(top / "home" / "dir");
  }

  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> result;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      result[entry.path().lexically_normal()] =
          std::string(std::istreambuf_iterator<char>(file), {});
    }
    return result;
  }

 private:
  std::filesystem::path top;
};

// ---- the second reading ----

struct Words {
  std::string apptag, filename, level, timefmt, timeprec, cyclefreq;
};

bool same(const std::string& a, const char* b) {
  return strcasecmp(a.c_str(), b) == 0;
}

bool names_stream(const std::string& filename) {
  return same(filename, "STDOUT") || same(filename, "STDERR");
}

struct Refusal {
  int code;
  std::string text;
};

int level_of(const std::string& text) {
  if (text.empty()) return 3;
  long level = -1;
  if (text[0] >= '0' && text[0] <= '9') {
    level = std::strtol(text.c_str(), nullptr, 10);
  } else {
    for (int i = 0; i <= 5; ++i) {
      if (same(text, level_symbol(i).c_str())) level = i;
    }
    const bool numbered = (text[0] == 'L' || text[0] == 'l') && text.size() > 1 &&
                          text.find_first_not_of("0123456789", 1) == text.npos;
    if (numbered) level = std::strtol(text.c_str() + 1, nullptr, 10);
    if (numbered && level > INT_MAX) level = -1;
  }
  if (level < 1) throw Refusal{9, "Invalid VrnLog trace level (" + text + ")"};
  return level > INT_MAX ? INT_MAX : static_cast<int>(level);
}

int word_of(const std::string& text, int dflt, const char* what,
            const std::map<std::string, int>& codes) {
  if (text.empty()) return dflt;
  for (const auto& [word, code] : codes) {
    if (same(text, word.c_str())) return code;
  }
  throw Refusal{9, std::string("Invalid VrnLog ") + what + " (" + text + ")"};
}

// The path of a file that can be opened: no part of it is too long or a directory.
bool can_be_opened(const std::filesystem::path& path) {
  const std::string name = path.filename();
  return name.size() <= NAME_MAX && path.native().size() < PATH_MAX && name != "." &&
         name != ".." && !std::filesystem::is_directory(path);
}

// ---- the model of a log ----

class Model {
 public:
  Model(const Words& words, const Playground& playground) {
    level = level_of(words.level);
    format.timeprec =
        word_of(words.timeprec, 2, "precision", {{"NONE", 1}, {"MILLI", 2}, {"MICRO", 3}});
    frequency = word_of(words.cyclefreq, 1, "cycle-frequency",
                        {{"NEVER", 1}, {"HOURLY", 2}, {"DAILY", 3}, {"MONTHLY", 4}});
    format.timefmt = words.timefmt;
    if (names_stream(words.filename)) {
      is_stream = true;
      frequency = 1;
      return;
    }
    const std::string tag = words.apptag.empty() ? "Unknown" : words.apptag;
    stem = words.filename.empty() ? playground.path() + "/VORN.LOG" : words.filename;
    std::error_code error;
    const auto status = std::filesystem::status(stem, error);
    if (status.type() == std::filesystem::file_type::none) {
      throw Refusal{2, "Failed to stat logfile=" + stem};
    }
    if (std::filesystem::is_directory(status)) {
      stem += "/" + tag;
    } else {
      format.tagprefix = tag + "-";
    }
    if (frequency == 1) open(stem);
  }

  bool cycle() {
    if (frequency == 1) return false;
    const time_t second = clock_now() / 1000000;
    struct tm now = {};
    localtime_r(&second, &now);
    const char* const period_format = frequency == 2   ? "%y%m%d%H"
                                      : frequency == 3 ? "%y%m%d"
                                                       : "%y%m";
    char period[16];
    char stamp[16];
    std::strftime(period, sizeof period, period_format, &now);
    std::strftime(stamp, sizeof stamp, "%y%m%d%H", &now);
    if (!file.empty() && last_period == period) return false;
    last_period = period;
    file.clear();
    open(stem + "-" + stamp);
    return true;
  }

  void log(int lvl, const std::string& message) {
    if (lvl > level) return;
    cycle();
    (is_stream ? stream : files[file]) += record_line(format, lvl, message);
  }

  int level;
  bool is_stream = false;
  std::string stream;                        // what is written to it
  std::map<std::string, std::string> files;  // their content by their paths

 private:
  void open(const std::string& path) {
    if (!can_be_opened(path)) throw Refusal{2, "Failed to open logfile=" + path};
    file = std::filesystem::path(path).lexically_normal();
    files[file];
  }

  RecordFormat format;
  int frequency;
  std::string stem;
  std::string file;  // that is open; empty: none
  std::string last_period;
};

// Both do the same: return, or throw the same.
template <class Library, class Second>
void same_outcome(Library library, Second second) {
  std::optional<Refusal> refusal;
  try {
    second();
  } catch (const Refusal& r) {
    refusal = r;
  }
  try {
    library();
    require(!refusal, "accepted in spite of [%s]", refusal ? refusal->text.c_str() : "");
  } catch (const VrnException& e) {
    require(refusal && refusal->code == e.err() && refusal->text.substr(0, 1023) == e.what(),
            "exception %d [%s] instead of [%s]", e.err(), e.what(),
            refusal ? refusal->text.c_str() : "none");
  }
}

// ---- the ways to a logger ----

std::string quoted(const std::string& value) {
  std::string text = "\"";
  for (const char c : value) {
    if (c == ';' || c == '\\') text += '\\';
    text += c;
  }
  return text + "\"";
}

VrnLog* from_configuration(const Words& words, bool keep_tag) {
  const MemoryFile file("[Log]\nFILENAME=" + quoted(words.filename) +
                        "\nlevel=" + quoted(words.level) + "\nTIMEFMT=" + quoted(words.timefmt) +
                        ";second\nTIMEPREC=" + quoted(words.timeprec) +
                        "\nCYCLEFREQ=" + quoted(words.cyclefreq) + "\nAPPTAG=unused\n");
  VrnConfig config(file.path);
  return VrnLog::configCreate(&config, "LOG", keep_tag ? words.apptag.c_str() : nullptr);
}

VrnLog* from_environment(const Words& words) {
  const std::pair<const char*, const std::string&> settings[] = {
      {VrnLog::CFG_APPTAG, words.apptag},     {VrnLog::CFG_FILENAME, words.filename},
      {VrnLog::CFG_LEVEL, words.level},       {VrnLog::CFG_TIMEFMT, words.timefmt},
      {VrnLog::CFG_TIMEPREC, words.timeprec}, {VrnLog::CFG_CYCLEFREQ, words.cyclefreq}};
  for (const auto& [key, value] : settings) {
    if (value.empty()) {
      unsetenv(VrnLog::envname(key).c_str());
    } else {
      setenv(VrnLog::envname(key).c_str(), value.c_str(), 1);
    }
  }
  return VrnLog::defaultCreate();
}

VrnLog* from_words(const Words& words) {
  const auto text = [](const std::string& word) { return word.empty() ? nullptr : word.c_str(); };
  return VrnLog::create(text(words.apptag), text(words.filename), text(words.level),
                        text(words.timefmt), text(words.timeprec), text(words.cyclefreq));
}

VrnLog* make(const Words& words, unsigned way) {
  switch (way) {
    case 0: return from_configuration(words, true);
    case 1: return from_environment(words);
    default: return from_words(words);
  }
}

// While it lives, standard output and standard error lead to a file of its own.
class RedirectedStreams {
 public:
  RedirectedStreams() : saved_out(dup(1)), saved_err(dup(2)) {
    std::fflush(stdout);
    // At the end of the file, as both streams are.
    std::FILE* const end = std::fopen(file.path.c_str(), "ae");
    require(end != nullptr, "no stream");
    dup2(fileno(end), 1);
    dup2(fileno(end), 2);
    std::fclose(end);
  }
  RedirectedStreams(const RedirectedStreams&) = delete;
  RedirectedStreams& operator=(const RedirectedStreams&) = delete;
  ~RedirectedStreams() {
    std::fflush(stdout);
    dup2(saved_out, 1);
    dup2(saved_err, 2);
    close(saved_out);
    close(saved_err);
  }

  const MemoryFile file;

 private:
  const int saved_out, saved_err;
};

// Years have two digits in the names of files, neither of them a leading 0.
constexpr long FIRST_TIME = 1262476800000000;
constexpr long LAST_TIME = 4070908799000000;

long some_time(Input* input) {
  const long second = static_cast<unsigned>(input->number()) % 2700000000;
  return FIRST_TIME + second * 1000000 + 123456;
}

void operate(Input* input, VrnLog* log, Model* model) {
  const unsigned operation = input->below(8);
  if (operation == 0) {
    const long later = clock_now() + (input->number() & 0xffff) * 60000000L;
    set_clock(std::min(later, LAST_TIME));
  } else if (operation == 1) {
    set_clock(std::max(clock_now() + input->number() % 1000000, FIRST_TIME));
  } else if (operation == 2) {
    const std::string text = input->line();
    int former = -1;
    int model_former = -2;
    same_outcome([&] { former = log->level(text.c_str()); },
                 [&] { model_former = std::exchange(model->level, level_of(text)); });
    require(former == model_former || former == -1, "former level %d", former);
  } else if (operation == 3) {
    const int number = input->number();
    // A number is a text of digits, but for the sign.
    same_outcome([&] { log->level(number); },
                 [&] { model->level = level_of(std::to_string(number)); });
  } else if (operation == 4) {
    const time_t second = clock_now() / 1000000;
    struct tm now = {};
    localtime_r(&second, &now);
    bool cycled = false;
    bool model_cycled = false;
    same_outcome([&] { cycled = log->cycle(&now); }, [&] { model_cycled = model->cycle(); });
    require(cycled == model_cycled, "cycle()");
  } else {
    const int level = input->number() % 8;
    const std::string message = input->line();
    same_outcome([&] { log->log(level, "%s", message.c_str()); },
                 [&] { model->log(level, message); });
  }
}

// The record that the destructor writes has an address in it.
void add_shutdown(Model* model, std::string* written) {
  const std::string mark = "Logger Shutdown - flog=0x";
  const std::size_t at = written ? written->rfind(mark) : std::string::npos;
  std::string address;
  if (at != std::string::npos) {
    const std::size_t begin = at + mark.size();
    address = written->substr(begin, written->find_first_not_of("0123456789abcdef", begin) - begin);
  }
  try {
    model->log(4, mark + address + ", owner=" + (model->is_stream ? "No" : "Yes"));
  } catch (const Refusal&) {  // the destructor does not throw
  }
}

// The file that the destructor has written to: before that, all were those of the model.
std::string* file_of_shutdown(std::map<std::string, std::string>* files, const Model& model) {
  for (auto& [name, content] : *files) {
    const auto it = model.files.find(name);
    if (it == model.files.end() || it->second != content) return &content;
  }
  return nullptr;
}

void check_same(const std::map<std::string, std::string>& files,
                const std::map<std::string, std::string>& expected) {
  for (const auto& [name, content] : expected) {
    const auto it = files.find(name);
    require(it != files.end(), "no file %s", name.c_str());
    require(it->second == content, "%s is\n[%s] instead of\n[%s]", name.c_str(), it->second.c_str(),
            content.c_str());
  }
  require(files.size() == expected.size(), "more files than expected");
}

Words words_of(Input* input, const Playground& playground) {
  Words words{input->line(), input->line(), input->line(),
              input->line(), input->line(), input->line()};
  for (std::string* name : {&words.apptag, &words.filename}) {
    for (char& c : *name) c = c == '/' ? '_' : c;  // nothing outside the playground
  }
  const bool is_word =
      words.filename.empty() || same(words.filename, "STDOUT") || same(words.filename, "STDERR");
  if (!is_word) words.filename = playground.path() + "/" + words.filename;
  return words;
}

bool fits_a_line(const Words& words) {
  return words.filename.size() < 700 && words.level.size() < 700 && words.timefmt.size() < 700 &&
         words.timeprec.size() < 700 && words.cyclefreq.size() < 700;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Playground playground;
  Input input(data, size);
  unsigned way = input.below(3);
  set_clock(some_time(&input));
  const Words words = words_of(&input, playground);
  if (way == 0 && !fits_a_line(words)) way = 2;

  std::unique_ptr<Model> model;
  std::unique_ptr<VrnLog> log;
  std::optional<RedirectedStreams> streams;
  if (names_stream(words.filename)) streams.emplace();
  same_outcome([&] { log.reset(make(words, way)); },
               [&] { model = std::make_unique<Model>(words, playground); });
  if (!log) return 0;
  while (!input.empty()) operate(&input, log.get(), model.get());
  log.reset();

  auto files = playground.files();
  std::string written = streams ? streams->file.read() : "";
  add_shutdown(model.get(), model->is_stream ? &written : file_of_shutdown(&files, *model));
  check_same(files, model->files);
  if (model->is_stream) require(written == model->stream, "another text on the stream");
  if (!files.empty()) playground.clear();
  return 0;
}
