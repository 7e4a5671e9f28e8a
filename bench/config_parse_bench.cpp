// How long does a large configuration take to load? Beside it, where GLib was found at build time,
// the same content in the form that GKeyFile reads. Then the look-ups.

#include "vornfc/config.h"

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#ifdef HAVE_GLIB
// GLib's headers are not clean under our warnings.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wpedantic"
#include <glib.h>
#pragma GCC diagnostic pop
#endif

namespace {

constexpr int ITEMS = 10;

// A file of `groups` groups with ITEMS items each, one of them a list; valid in both formats.
class SampleFile {
 public:
  explicit SampleFile(long groups) {
    char name[] = "/tmp/vornfc_bench_XXXXXX";
    close(mkstemp(name));
    path = name;
    std::ofstream file(path);
    for (long group = 0; group < groups; ++group) {
      file << "[group" << group << "]\n";
      for (int item = 1; item < ITEMS; ++item) {
        file << "item" << item << "=value " << item << " of group " << group << "\n";
      }
      file << "list=one;two;three\n";
    }
  }
  SampleFile(const SampleFile&) = delete;
  SampleFile& operator=(const SampleFile&) = delete;
  ~SampleFile() { std::remove(path.c_str()); }

  std::string path;
};

void BM_VrnConfig(benchmark::State& state) {
  const SampleFile sample(state.range(0));
  for (auto _ : state) {
    const vornfc::VrnConfig config(sample.path);
    benchmark::DoNotOptimize(&config);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * ITEMS);
}
BENCHMARK(BM_VrnConfig)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);

#ifdef HAVE_GLIB
void BM_GKeyFile(benchmark::State& state) {
  const SampleFile sample(state.range(0));
  for (auto _ : state) {
    GKeyFile* file = g_key_file_new();
    GError* error = nullptr;
    if (!g_key_file_load_from_file(file, sample.path.c_str(), G_KEY_FILE_NONE, &error)) {
      state.SkipWithError(error->message);
      g_error_free(error);
    }
    g_key_file_free(file);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * ITEMS);
}
BENCHMARK(BM_GKeyFile)->Arg(100)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
#endif

void BM_Lookup(benchmark::State& state) {
  const SampleFile sample(state.range(0));
  const vornfc::VrnConfig config(sample.path);
  const std::string group = "group" + std::to_string(state.range(0) / 2);
  const std::string item = "list";
  for (auto _ : state) {
    benchmark::DoNotOptimize(config.value(group, item, true, 2));
  }
}
BENCHMARK(BM_Lookup)->Arg(100)->Arg(10000);

}  // namespace
