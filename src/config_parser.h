#pragma once
// Reads a configuration line by line. The one parser of the format: the library stops at the first
// error, a checker of files is told every one.

#include "vornfc/config.h"

#include <cctype>
#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vornfc {

// White space in a configuration file, whatever the sign of char.
inline bool is_space(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Names are kept as they are written in the file; maps find them without regard to case.
struct item_t {
  std::vector<std::string> values;
};

struct group_t {
  explicit group_t(const std::string& given) : name(given) { itemnams.reserve(8); }
  group_t(const group_t& other);
  group_t(group_t&& other) = default;
  group_t& operator=(group_t&& other) = default;
  ~group_t() = default;

  std::string name;
  std::map<std::string, item_t, VrnNocaseStringLess> items;
  std::vector<const std::string*> itemnams;  // the keys of `items` in the order of the file
};

struct ConfigContent {
  using Groups = std::map<std::string, group_t, VrnNocaseStringLess>;
  Groups groups;
  std::vector<std::string> grpnams;  // in the order of the file
};

// Told what the parser meets, in the order of the file; lines count from 1. Whatever is passed is
// valid during the call. An exception ends the parsing and leaves parse_file().
class ConfigSink {
 public:
  virtual ~ConfigSink() = default;

  // Every line as it was read: with its line end if it has one, untrimmed. At most 1600 characters;
  // the rest of a longer line is skipped without a call.
  virtual void onLine(int lineno, std::string_view line);
  virtual void onGroup(int lineno, const group_t& group);
  virtual void onItem(int lineno, const group_t& group, const std::string& name,
                      const item_t& item);

  // What is wrong with a line, without file and line number. After a return the parser goes on with
  // the next line.
  virtual void onError(int lineno, const std::string& text) = 0;
};

class ConfigParser {
 public:
  // Nothing is owned; all three outlive the parser.
  ConfigParser(std::FILE* stream, ConfigContent* content, ConfigSink* reports);

  // Reads the stream to its end, adds well-formed groups and items to the content and reports the
  // faults. The items of a faulty header are checked like others and then dropped.
  void parse_file();

 private:
  static constexpr int MAX_LINE = 1601;  // a line, its line end and a terminator

  bool read_line();
  void parse_line();
  [[noreturn]] void reject_line(std::size_t length);
  void parse_group(std::string_view text);
  void reject_group(std::string_view name);
  void enter(group_t* entered);
  void parse_item(std::string_view text);
  void parse_values(item_t* item, std::string_view text);
  std::string_view next_value(std::string_view* text);

  std::FILE* in;
  ConfigContent* out;
  ConfigSink* sink;
  char line[MAX_LINE] = {};
  char scratch[MAX_LINE];   // a value without its escapes
  bool unfinished = false;  // the rest of the line is still to be skipped
  int lineno = 0;

  group_t* group = nullptr;  // of the lines that follow; null before the first header
  group_t rejected{""};      // stands in for the group of a faulty header

  // Behind the last entry that was added: the place of the next one when a file is sorted.
  ConfigContent::Groups::iterator group_hint;
  decltype(group_t::items)::iterator item_hint;
};

}  // namespace vornfc
