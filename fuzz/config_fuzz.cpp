// Any bytes as a configuration file. The library and a checker agree on the first error; what is
// accepted can be dumped, and the dump reads back as the same configuration.

#include "config_parser.h"
#include "vornfc/config.h"
#include "vornfc/exception.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// A file in memory, and the path to it.
class MemoryFile {
 public:
  MemoryFile(const char* data, std::size_t size) : fd(memfd_create("config", MFD_CLOEXEC)) {
    if (fd == -1 || write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
    path = "/proc/self/fd/" + std::to_string(fd);
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile() { close(fd); }

  std::string path;

 private:
  int fd;
};

class Checker : public vornfc::ConfigSink {
 public:
  explicit Checker(const MemoryFile& file) {
    std::FILE* in = std::fopen(file.path.c_str(), "re");
    if (!in) std::abort();
    vornfc::ConfigParser(in, &content, this).parse_file();
    std::fclose(in);
  }

  void onError(int lineno, const std::string& text) override {
    if (lineno < last_line) std::abort();
    last_line = lineno;
    if (first_error.empty()) first_error = std::to_string(lineno) + " - " + text;
  }

  std::string first_error;

 private:
  vornfc::ConfigContent content;
  int last_line = 0;
};

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "config_fuzz: %s\n", what);
  std::abort();
}

std::string dump(const vornfc::VrnConfig& config) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* stream = open_memstream(&text, &size);
  config.dump(stream);
  std::fclose(stream);
  std::string result(text, size);
  std::free(text);
  return result;
}

bool is_quoted(const std::string& value) {
  return !value.empty() && (value.front() == '"' || value.back() == '"');
}

// Whether the dump is a file that says the same: no value has a quote at an end, and no line has
// become too long by what the dump adds.
bool survives_dump(const vornfc::VrnConfig& config, const std::string& text) {
  for (const std::string& group : config.groups()) {
    for (const std::string& item : config.items(group, true)) {
      const std::vector<std::string> values = config.values(group, item, true);
      if (std::any_of(values.begin(), values.end(), is_quoted)) return false;
    }
  }
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find('\n', begin)) != text.npos; begin = end + 1) {
    if (end - begin > 1599) return false;
  }
  return true;
}

void check_same(const vornfc::VrnConfig& config, const vornfc::VrnConfig& again) {
  require(config.groups().size() == again.groups().size(), "the dump has other groups");
  for (const std::string& group : config.groups()) {
    require(config.items(group, true).size() == again.items(group, true).size(),
            "the dump has other items");
    for (const std::string& item : config.items(group, true)) {
      require(config.values(group, item, true) == again.values(group, item, true),
              "the dump has other values");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(reinterpret_cast<const char*>(data), size);
  const Checker checker(file);
  try {
    const vornfc::VrnConfig config(file.path);
    require(checker.first_error.empty(), "the checker found an error, the library did not");
    const std::string text = dump(config);
    if (!survives_dump(config, text)) return 0;
    const MemoryFile dumped(text.data(), text.size());
    check_same(config, vornfc::VrnConfig(dumped.path));
  } catch (const vornfc::VrnException& e) {
    const std::string expected = "VrnConfig " + file.path + ":" + checker.first_error;
    require(e.what() == expected.substr(0, 1023), e.what());
  }
  return 0;
}
