#include "log_model.h"

#include "clock.h"

#include <pthread.h>
#include <unistd.h>

#include <ctime>

namespace {

std::string padded(long number, std::size_t width) {
  std::string text = std::to_string(number);
  while (text.size() < width) text.insert(0, "0");
  return text;
}

}  // namespace

std::string level_symbol(int level) {
  switch (level) {
    case 0: return "MUST";
    case 1: return "ERR";
    case 2: return "WARN";
    case 3: return "INFO";
    case 4: return "DBG";
    case 5: return "TRC";
    default: return "L" + std::to_string(level);
  }
}

std::string record_line(const RecordFormat& format, int level, const std::string& message) {
  constexpr std::size_t LONGEST = 2047;
  const time_t second = clock_now() / 1000000;
  const long micros = clock_now() % 1000000;
  struct tm local = {};
  localtime_r(&second, &local);
  const char* const timefmt = format.timefmt.empty() ? "%Y%m%d-%H:%M:%S" : format.timefmt.c_str();
  char stamp[LONGEST + 1];
  std::string text(stamp, std::strftime(stamp, sizeof stamp, timefmt, &local));
  if (format.timeprec == 2) text += "." + padded(micros / 1000, 3);
  if (format.timeprec == 3) text += "." + padded(micros, 6);
  text += " " + level_symbol(level) + " " + format.tagprefix + std::to_string(getpid()) + "-" +
          std::to_string(pthread_self()) + " " + message;
  return text.substr(0, LONGEST) + "\n";
}
