#include "checker.h"

#include "config_parser.h"
#include "vornfc/exception.h"
#include "vornfc/log.h"

#include <strings.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <unordered_map>

namespace vornfc::conf {

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";

constexpr const char* LOGGER_ITEMS[] = {VrnLog::CFG_FILENAME, VrnLog::CFG_LEVEL,
                                        VrnLog::CFG_TIMEFMT, VrnLog::CFG_TIMEPREC,
                                        VrnLog::CFG_CYCLEFREQ};

// Why no logger can be made from these words; empty: one can.
std::string rejection(const std::string& level, const std::string& timeprec,
                      const std::string& cyclefreq) {
  try {
    const std::unique_ptr<VrnLog> log(VrnLog::create(nullptr, "STDERR", level.c_str(), nullptr,
                                                     timeprec.c_str(), cyclefreq.c_str()));
    log->level(1);  // leaves out the record of its end
    return "";
  } catch (const VrnException& error) {
    return error.what();
  }
}

// The library's words for a logger group that is not there.
std::string missing_group(const std::string& name) {
  try {
    VrnConfig empty;
    delete VrnLog::configCreate(&empty, name, nullptr);
    return "";
  } catch (const VrnException& error) {
    return error.what();
  }
}

// Written as a value and read back, it is another one: dump() adds quotes only for the sake of
// white space at an end.
bool is_lost_by_dump(const std::string& value) {
  if (value.empty() || is_space(value.front()) || is_space(value.back())) return false;
  return value.front() == '"' || value.back() == '"';
}

// What is a comment behind a value in other formats.
bool has_comment(const std::string& value) {
  for (std::size_t at = value.find('#'); at != value.npos; at = value.find('#', at + 1)) {
    if (at > 0 && is_space(value[at - 1]) && at + 1 < value.size() && is_space(value[at + 1])) {
      return true;
    }
  }
  return false;
}

class Checker : public ConfigSink {
 public:
  Checker(std::FILE* stream, const std::string& name, const std::vector<std::string>& logger_groups)
      : in(stream), file(name), loggers(logger_groups) {}

  std::vector<Finding> run();

  void onLine(int lineno, std::string_view line) override;
  void onGroup(int lineno, const group_t& group) override;
  void onItem(int lineno, const group_t& group, const std::string& name,
              const item_t& item) override;
  void onError(int lineno, const std::string& text) override;

 private:
  bool is_logger(const group_t& group) const;
  void check_logger(const group_t& group);
  void check_setting(const char* name, const item_t& item);
  void warn(int lineno, const std::string& text);

  std::FILE* const in;
  const std::string& file;
  const std::vector<std::string>& loggers;
  ConfigContent content;
  std::unordered_map<const void*, int> lines;  // of the groups and items of `content`
  std::vector<Finding> findings;
  bool unfinished = false;  // the line met last is the end of the file and has no newline
  bool quoted = false;      // the line met last has a double quote
  bool crlf_reported = false;
};

std::vector<Finding> Checker::run() {
  ConfigParser(in, &content, this).parse_file();
  for (const auto& [name, group] : content.groups) {
    if (is_logger(group)) check_logger(group);
  }
  for (const std::string& name : loggers) {
    if (content.groups.count(name) == 0) warn(0, missing_group(name));
  }
  std::stable_sort(findings.begin(), findings.end(),
                   [](const Finding& a, const Finding& b) { return a.line < b.line; });
  return std::move(findings);
}

void Checker::onLine(int lineno, std::string_view line) {
  const auto ends_with = [line](std::string_view end) {
    return line.size() >= end.size() && line.substr(line.size() - end.size()) == end;
  };
  unfinished = !ends_with("\n") && std::feof(in);
  quoted = line.find('"') != line.npos;
  if (lineno == 1 && line.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK) {
    warn(lineno, "the file begins with a UTF-8 byte order mark, which is read as text");
  }
  if (!crlf_reported && ends_with("\r\n")) {
    warn(lineno, "the line ends with CR LF (reported once)");
    crlf_reported = true;
  }
}

void Checker::onGroup(int lineno, const group_t& group) {
  lines[&group] = lineno;
  if (group.name.empty()) warn(lineno, "the group has no name");
}

void Checker::onItem(int lineno, const group_t&, const std::string& name, const item_t& item) {
  lines[&item] = lineno;
  if (name.empty()) warn(lineno, "the item has no name");
  for (std::size_t i = 0; i < item.values.size(); ++i) {
    const std::string which = "value " + std::to_string(i);
    if (is_lost_by_dump(item.values[i])) {
      warn(lineno, which + " begins or ends with a double quote, which a dump loses");
    }
    if (!quoted && has_comment(item.values[i])) {
      warn(lineno, "\"#\" begins no comment here, it is part of " + which);
    }
  }
}

void Checker::onError(int lineno, const std::string& text) {
  findings.push_back({file, lineno, true, text});
  if (unfinished) warn(lineno, "the newline at the end of the file is missing");
}

bool Checker::is_logger(const group_t& group) const {
  for (const std::string& name : loggers) {
    if (strcasecmp(name.c_str(), group.name.c_str()) == 0) return true;
  }
  const auto present = [&group](const char* item) { return group.items.count(item) != 0; };
  return std::count_if(std::begin(LOGGER_ITEMS), std::end(LOGGER_ITEMS), present) >= 2;
}

void Checker::check_logger(const group_t& group) {
  if (group.name.find(':') != group.name.npos) {
    warn(lines.at(&group),
         "option -L cannot name this group, it takes \":\" for the end of a name");
  }
  for (const char* name : LOGGER_ITEMS) {
    if (const auto it = group.items.find(name); it != group.items.end()) {
      check_setting(name, it->second);
    }
  }
  if (const auto it = group.items.find(VrnLog::CFG_APPTAG); it != group.items.end()) {
    warn(lines.at(&it->second), "a logger does not read APPTAG, its tag is given with option -L");
  }
}

void Checker::check_setting(const char* name, const item_t& item) {
  if (item.values.empty()) return;
  const std::string& word = item.values.front();
  std::string reason;
  if (name == VrnLog::CFG_LEVEL) reason = rejection(word, "", "");
  if (name == VrnLog::CFG_TIMEPREC) reason = rejection("", word, "");
  if (name == VrnLog::CFG_CYCLEFREQ) reason = rejection("", "", word);
  if (!reason.empty()) warn(lines.at(&item), "a logger rejects this: " + reason);
  if (const std::size_t count = item.values.size(); count > 1) {
    warn(lines.at(&item), "a logger reads only the first of " + std::to_string(count) + " values");
  }
}

void Checker::warn(int lineno, const std::string& text) {
  findings.push_back({file, lineno, false, text});
}

}  // namespace

std::vector<Finding> check_stream(std::FILE* in, const std::string& file,
                                  const std::vector<std::string>& loggers) {
  return Checker(in, file, loggers).run();
}

}  // namespace vornfc::conf
