// What does a record cost: to a file, to a cycling file, to a stream, by several threads, and when
// the level filter drops it?

#include "vornfc/log.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace {

constexpr int NEVER = 1;
constexpr int HOURLY = 2;

class TempDir {
 public:
  TempDir() {
    char name[] = "/tmp/vornfc_bench_XXXXXX";
    path = mkdtemp(name);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() { std::filesystem::remove_all(path); }

  std::string path;
};

void write_records(benchmark::State& state, vornfc::VrnLog* log, int level) {
  int number = 0;
  for (auto _ : state) {
    log->log(level, "Request %d from %s:%d accepted in %ld us", ++number, "192.0.2.17", 4711, 93L);
  }
  state.SetItemsProcessed(state.iterations());
}

void BM_File(benchmark::State& state) {
  const TempDir dir;
  vornfc::VrnLog log("bench", (dir.path + "/log").c_str(), static_cast<int>(state.range(0)), 3, "",
                     2);
  write_records(state, &log, 3);
}
BENCHMARK(BM_File)->ArgName("cyclefreq")->Arg(NEVER)->Arg(HOURLY);

void BM_DevNull(benchmark::State& state) {
  vornfc::VrnLog log("bench", "/dev/null", NEVER, 3, "", 2);
  write_records(state, &log, 3);
}
BENCHMARK(BM_DevNull);

void BM_Stream(benchmark::State& state) {
  std::FILE* stream = std::fopen("/dev/null", "w");
  {
    vornfc::VrnLog log(stream, 3, "", 2);
    write_records(state, &log, 3);
  }
  std::fclose(stream);
}
BENCHMARK(BM_Stream);

void BM_Dropped(benchmark::State& state) {
  vornfc::VrnLog log("bench", "/dev/null", NEVER, 3, "", 2);
  write_records(state, &log, 4);
}
BENCHMARK(BM_Dropped);

// The floor under BM_File: the same bytes by bare write calls.
void BM_BareWrite(benchmark::State& state) {
  const TempDir dir;
  const int fd = open((dir.path + "/log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const std::string record(105, 'x');
  for (auto _ : state) {
    if (write(fd, record.data(), record.size()) == -1) state.SkipWithError("write failed");
  }
  close(fd);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareWrite);

void BM_Threads(benchmark::State& state) {
  static vornfc::VrnLog log("bench", "/dev/null", NEVER, 3, "", 2);
  write_records(state, &log, 3);
}
BENCHMARK(BM_Threads)->Threads(2)->Threads(8)->UseRealTime();

}  // namespace
