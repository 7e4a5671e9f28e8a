#pragma once
// Captures what the library writes to standard error.

#include <string>
#include <vector>

// From construction to destruction standard error goes to a temporary file, and the lines of level
// 3 and above are turned on, provided that no line was logged before. The end of the capture passes
// the text on to the real standard error, for the output of a test that fails.
//
//   LogCapture log;
//   mutex.unlock();
//   EXPECT_EQ(log.lines(), std::vector<std::string>{"mutex.unlock: mutex-unlock failed on m (1)"});
class LogCapture {
 public:
  LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture();

  std::string raw() const;                       // all of it, to the byte
  std::vector<std::string> lines() const;        // line by line, without "*** PID=<pid>: "
  bool contains(const std::string& text) const;  // somewhere in one of lines()

 private:
  int file;          // the temporary file, which has no name any more
  int saved_stderr;  // where descriptor 2 led before
};
