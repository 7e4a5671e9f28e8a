// Logs into files, with cycling, onto a stream, and one that goes on after a torn line. The library
// promises: a record is there, or log() has thrown, or its write has failed; whatever happens, the
// other records are whole.

#include "report.h"
#include "scenario.h"
#include "vornfc/vornfc.h"

#include <dirent.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

using inject::Call;
using inject::Own;
using vornfc::VrnLog;

namespace {

constexpr int Records = 24;
constexpr std::time_t Start = 1700000000;
constexpr int Step = 1000;  // seconds between records

using Path = std::array<char, 64>;

Path path_of(const char* name) {
  Path path{};
  std::snprintf(path.data(), path.size(), "%s/%s", work_directory, name);
  return path;
}

std::string content_of(const char* path) {
  std::string text;
  std::FILE* const file = std::fopen(path, "r");
  if (!file) return text;
  for (int c; (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
  std::fclose(file);
  return text;
}

// Everything that was logged to files whose names begin with `stem`.
std::string content_of_all(const char* stem) {
  std::string text;
  DIR* const directory = opendir(work_directory);
  while (const dirent* const entry = readdir(directory)) {
    if (std::strncmp(entry->d_name, stem, std::strlen(stem)) != 0) continue;
    text += content_of(path_of(entry->d_name).data());
  }
  closedir(directory);
  return text;
}

// Logs the records; returns how many of them were refused by an exception.
int log_records(VrnLog* log) {
  int refused = 0;
  for (int i = 1; i <= Records; ++i) {
    if (!library([&] { log->log(3, "record %d of the log %s", i, "ENDS"); })) ++refused;
    inject::clock_time += Step;
  }
  return refused;
}

bool is_whole(const std::string& text, int number) {
  const std::string record = " record " + std::to_string(number) + " of the log ENDS\n";
  const std::size_t at = text.find(record);
  if (at == std::string::npos) return false;
  if (text.find(record, at + 1) != std::string::npos) fail("record %d is there twice", number);
  const std::size_t begin = text.rfind('\n', at) + 1;
  if (!std::isdigit(static_cast<unsigned char>(text[begin]))) {
    fail("record %d begins in the middle of a line", number);
  }
  return true;
}

// What write(2) refuses is lost, as documented: one record for one failed call.
void check(const std::string& text, int refused, const char* what) {
  int missing = -refused;
  for (int i = 1; i <= Records; ++i) missing += is_whole(text, i) ? 0 : 1;
  if (missing == 0) return;
  const bool refused_by_file =
      inject::met(Call::Write) || inject::met(Call::Fwrite) || inject::met(Call::Fflush);
  if (missing < 0) fail("%s: a record that log() has refused is there", what);
  if (missing > (refused_by_file ? 1 : 0)) fail("silent loss: %s, %d records", what, missing);
  if (report->harmless && !inject::met(EAGAIN)) fail("loss by a harmless fault: %s", what);
}

void log_to_cycled_files() {
  const Path path = path_of("cycled");
  std::unique_ptr<VrnLog> log;
  const auto create = [&] { log = std::make_unique<VrnLog>("tag", path.data(), 2, 3, nullptr, 2); };
  if (!library(create)) return;
  const int refused = log_records(log.get());
  log.reset();
  const Own own;
  check(content_of_all("cycled-"), refused, "cycled log");
}

// A log is closed and opened again, over a line that another program has not ended.
void log_after_torn_line() {
  const Path path = path_of("plain");
  {
    const Own own;
    std::FILE* const file = std::fopen(path.data(), "w");
    std::fputs("torn", file);
    std::fclose(file);
  }
  std::unique_ptr<VrnLog> log;
  const auto create = [&] {
    log.reset(VrnLog::create("tag", path.data(), "INFO", "%Y %H:%M", "MICRO", "NEVER"));
  };
  if (!library(create)) return;
  const int refused = log_records(log.get());
  library([&] { log->level("DBG"); });
  log.reset();
  const Own own;
  // When nobody could look how the file ends, the first record may share the torn line.
  std::string text = content_of(path.data());
  const bool looked =
      !inject::met(Call::Fstat) && !inject::met(Call::Open) && !inject::met(Call::Pread);
  if (!looked && text.rfind("torn", 0) == 0) text.insert(4, "\n");
  check(text.compare(0, 5, "torn\n") == 0 ? text.substr(5) : text, refused, "plain log");
}

void log_to_stream() {
  const Path path = path_of("stream");
  std::FILE* stream = nullptr;
  {
    const Own own;
    stream = std::fopen(path.data(), "w");
  }
  std::unique_ptr<VrnLog> log;
  int refused = Records;
  if (library([&] { log = std::make_unique<VrnLog>(stream, 3, "", 1); })) {
    refused = log_records(log.get());
    log.reset();
  }
  const Own own;
  std::fclose(stream);
  if (refused < Records) check(content_of(path.data()), refused, "log on a stream");
}

}  // namespace

void run_logging() {
  inject::clock_time = Start;
  log_to_cycled_files();
  log_after_torn_line();
  log_to_stream();
}
