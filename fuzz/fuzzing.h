#pragma once
// What the fuzz targets share: the input as a source of decisions, and the end of the process that
// a deviation is.

#include <cstddef>
#include <cstdint>
#include <string>

// The bytes of an input, taken one by one from the front. At the end everything is 0.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : next(data), left(size) {}

  bool empty() const { return left == 0; }
  unsigned byte();
  unsigned below(unsigned bound) { return byte() % bound; }  // bound: 1 to 256
  bool chance(unsigned one_in) { return below(one_in) == one_in - 1; }
  int number();        // most often a small one, sometimes any
  std::string line();  // up to the next line end, without NUL bytes
  std::string rest();

 private:
  const std::uint8_t* next;
  std::size_t left;
};

// Unless `holds`, writes a line to standard error and ends the process by abort().
void require(bool holds, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// A file that has no name in any directory.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& content = "");
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;
  ~MemoryFile();

  std::string read() const;
  void write(const std::string& content) const;  // instead of what it has

  const int fd;
  const std::string path;  // opens it
};

// From now on the library's own log lines are dropped; they are formatted all the same.
void drop_log_lines();
