// Records of a log, and the messages of exceptions, from formats that are put together of any text
// and any conversions with arguments of their types: held against snprintf() and a second layout of
// the record, to the byte. Among the conversions are those that the log formats itself and those
// that it leaves to the C library; texts are up to some thousand characters long and have line ends
// and control characters in them.

#include "clock.h"
#include "fuzzing.h"
#include "log_model.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using vornfc::VrnException;
using vornfc::VrnLog;

constexpr std::size_t MOST_ARGUMENTS = 4;

struct Argument {
  enum Type { Int, Long, Text, Double } type;
  int number = 0;
  long large = 0;
  double real = 0;
  const char* text = nullptr;
};

struct Message {
  std::string format;
  std::vector<Argument> arguments;
  std::vector<std::unique_ptr<std::string>> texts;  // of the arguments
  int error = 0;                                    // for a "%m"
};

const char* pick(Input* input, const std::vector<const char*>& words) {
  return words[input->below(static_cast<unsigned>(words.size()))];
}

std::string some_text(Input* input) {
  std::string text;
  const unsigned length = input->byte();
  const bool repeated = length >= 200;
  const std::size_t count = repeated ? length % 8 + 1 : length % 32;
  for (std::size_t i = 0; i < count; ++i) text += static_cast<char>(input->byte());
  const unsigned times = repeated ? input->byte() * 2 + 1 : 1;
  std::string result;
  for (unsigned i = 0; i < times; ++i) result += text;
  return result.substr(0, result.find('\0'));
}

void add_literal(Input* input, Message* message) {
  for (const char c : some_text(input))
    message->format += c == '%' ? std::string("%%") : std::string(1, c);
}

void add_conversion(Input* input, Message* message) {
  if (message->arguments.size() == MOST_ARGUMENTS) return;
  Argument argument{};
  argument.type = static_cast<Argument::Type>(input->below(4));
  switch (argument.type) {
    case Argument::Int:
      message->format += pick(input, {"%d", "%u", "%x", "%d", "%u", "%x", "%i", "%o", "%X", "%c",
                                      "%5d", "%-7d", "%+d", "%05x", "%hhd", "%#x"});
      argument.number = input->number();
      break;
    case Argument::Long:
      message->format += pick(input, {"%ld", "%lu", "%lx", "%ld", "%lu", "%lx", "%li", "%zd", "%jd",
                                      "%12ld", "%-12lu", "%#lx"});
      argument.large = input->number() * (1L << input->below(32));
      break;
    case Argument::Text:
      message->format += pick(input, {"%s", "%s", "%s", "%10s", "%-10s", "%.3s", "%.0s"});
      if (!input->chance(8)) {
        message->texts.push_back(std::make_unique<std::string>(some_text(input)));
        argument.text = message->texts.back()->c_str();
      }
      break;
    case Argument::Double:
      message->format += pick(input, {"%f", "%g", "%e", "%.2f", "%10.1f", "%a"});
      argument.real = input->number() / 8.0;
      break;
  }
  message->arguments.push_back(argument);
}

Message message_of(Input* input) {
  Message message;
  message.error = static_cast<int>(input->below(134));
  while (!input->empty()) {
    switch (input->below(8)) {
      case 0: message.format += "%%"; break;
      case 1: message.format += "%m"; break;
      case 2:
      case 3: add_literal(input, &message); break;
      default: add_conversion(input, &message);
    }
  }
  return message;
}

class Target {
 public:
  Target(VrnLog* a_log, const MemoryFile* a_file, RecordFormat a_format)
      : log(a_log), file(a_file), format(std::move(a_format)) {}

  // Makes the list of arguments one longer, up to the whole of it, and then the calls. The last
  // argument of these belongs to no conversion.
  template <class... Given>
  void check(const Message& message, Given... given) const {
    if (sizeof...(Given) == message.arguments.size()) {
      check_record(message, given..., 0);
      check_exception(message, given..., 0);
      return;
    }
    if constexpr (sizeof...(Given) < MOST_ARGUMENTS) {
      const Argument& argument = message.arguments[sizeof...(Given)];
      switch (argument.type) {
        case Argument::Int: return check(message, given..., argument.number);
        case Argument::Long: return check(message, given..., argument.large);
        case Argument::Text: return check(message, given..., argument.text);
        case Argument::Double: return check(message, given..., argument.real);
      }
    }
  }

 private:
  template <class... Given>
  static std::string formatted(const Message& message, Given... given) {
    static char buffer[65536];
    errno = message.error;
    std::snprintf(buffer, sizeof buffer, message.format.c_str(), given...);
    return buffer;
  }

  template <class... Given>
  void check_record(const Message& message, Given... given) const {
    file->write("");
    errno = message.error;
    log->log(3, message.format.c_str(), given...);
    require(errno == message.error, "errno %d became %d", message.error, errno);
    const std::string expected = record_line(format, 3, formatted(message, given...));
    const std::string written = file->read();
    require(written == expected, "[%s]:\n[%s] instead of\n[%s]", message.format.c_str(),
            written.c_str(), expected.c_str());
  }

  template <class... Given>
  static void check_exception(const Message& message, Given... given) {
    errno = message.error;
    const VrnException exception(9, message.format.c_str(), given...);
    const std::string expected = formatted(message, given...).substr(0, 1023);
    require(exception.what() == expected, "[%s]:\n[%s] instead of\n[%s]", message.format.c_str(),
            exception.what(), expected.c_str());
    require(exception.err() == 9 && exception.syserr() == message.error, "another code");
  }

  VrnLog* const log;
  const MemoryFile* const file;
  const RecordFormat format;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile file;
  static const MemoryFile behind_stream;
  static std::FILE* const stream = std::fopen(behind_stream.path.c_str(), "ae");
  static VrnLog to_file("tag", file.path.c_str(), 1, 3, "", 3);
  static VrnLog to_stream(stream, 3, "%H.%M", 1);

  Input input(data, size);
  set_clock(1000000L * static_cast<unsigned>(input.number()) + input.byte() * 3906L);
  if (clock_now() % 2 == 0) {
    Target(&to_file, &file, {"", 3, "tag-"}).check(message_of(&input));
  } else {
    Target(&to_stream, &behind_stream, {"%H.%M", 1, ""}).check(message_of(&input));
  }
  return 0;
}
