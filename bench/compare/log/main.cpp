// Log files: what a record costs that is in the file when the call returns, and what one costs that
// the level drops.
//   filtered=0    1: records below the level
//   threads=1     that write to the one log
//   ms=500        of measuring
// The file is in a directory of its own in TMPDIR or /tmp.
#include "log.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

namespace {

using compare::now;

long lines_in(const std::filesystem::path& directory) {
  long lines = 0;
  const auto buffer = std::make_unique<char[]>(1 << 20);
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.is_symlink()) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    while (file.read(buffer.get(), 1 << 20) || file.gcount() > 0) {
      for (long i = 0; i < file.gcount(); ++i) lines += buffer[static_cast<size_t>(i)] == '\n';
    }
  }
  return lines;
}

// Seconds for each call, as the clock on the wall has it.
double time_calls(void (*calls)(int), int chunk, int threads, double seconds, long* count) {
  std::atomic<long> done{0};
  const double begin = now();
  const auto work = [&] {
    do {
      calls(chunk);
      done += chunk;
    } while (now() < begin + seconds);
  };
  std::vector<std::thread> others;
  for (int i = 1; i < threads; ++i) others.emplace_back(work);
  work();
  for (std::thread& thread : others) thread.join();
  *count += done;
  return (now() - begin) / static_cast<double>(done);
}

void measure(const Log& log, const compare::Arguments& arguments) {
  const bool filtered = arguments.number("filtered", 0) != 0;
  const int threads = static_cast<int>(arguments.number("threads", 1));
  const double seconds = static_cast<double>(arguments.number("ms", 500)) / 1000;
  std::string name = std::filesystem::temp_directory_path() / "compare_log_XXXXXX";
  const std::filesystem::path directory = mkdtemp(name.data());
  log.open(directory / "log");

  const auto calls = filtered ? log.filtered : log.records;
  const int chunk = filtered ? 100000 : 100;
  long count = 0;
  time_calls(calls, chunk, threads, 0.05, &count);
  const double each = time_calls(calls, chunk, threads, seconds, &count);
  const long missing = (filtered ? 0 : count) - lines_in(directory);
  std::filesystem::remove_all(directory);
  // A few lines of a header are allowed.
  if (missing > 0 || missing < -10) {
    std::fprintf(stderr, "%ld records are not in the file\n", missing);
    std::exit(1);
  }
  compare::report("ns_per_record", each * 1e9);
}

}  // namespace

int main(int argc, char** argv) {
  return compare::run<Log>(argc, argv, measure);
}
