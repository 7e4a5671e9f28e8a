// Any bytes as a configuration file. A second reading of the format, written for this test from
// its description alone, is held against the library's: groups, items and values in their order,
// the first error with its line, the list of all errors, what is left after an update that fails,
// booleans and integers, and the dump to the byte. What is dumped is then read back, by both.

#include "config_parser.h"
#include "fuzzing.h"
#include "vornfc/config.h"
#include "vornfc/exception.h"

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using vornfc::VrnConfig;
using vornfc::VrnException;
using Strings = std::vector<std::string>;

// ---- the second reading ----

struct Item {
  std::string name;
  Strings values;
};

struct Group {
  std::string name;
  std::vector<Item> items;
};

using Content = std::vector<Group>;

bool is_white(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string trim(std::string text) {
  while (!text.empty() && is_white(text[0])) text.erase(0, 1);
  while (!text.empty() && is_white(text[text.size() - 1])) text.erase(text.size() - 1);
  return text;
}

template <class Entry>
Entry* find(std::vector<Entry>* entries, const std::string& name) {
  for (Entry& entry : *entries) {
    if (strcasecmp(entry.name.c_str(), name.c_str()) == 0) return &entry;
  }
  return nullptr;
}

class Reading {
 public:
  explicit Reading(const std::string& file) {
    const std::size_t longest = 1600;
    for (std::size_t at = 0; at < file.size();) {
      ++lineno;
      std::size_t end = file.find('\n', at);
      const bool is_last = end == file.npos;
      if (is_last) end = file.size();
      const std::string text = file.substr(at, std::min(end - at, longest));
      const bool too_long = end - at >= longest;
      // Of what is read at once: the first 1600 bytes.
      const bool has_nul = text.find('\0') != text.npos;
      if (has_nul && !(is_last && !too_long)) {
        fail("NUL byte in line");
      } else if (too_long || is_last) {
        fail("Line too long, max=1601");
      } else {
        line(trim(text));
      }
      at = end + 1;
    }
    if (errors.empty()) before_error = groups;
  }

  Content groups;
  Content before_error;
  Strings errors;  // "LINE - TEXT"

 private:
  void fail(const std::string& text) {
    if (errors.empty()) before_error = groups;
    errors.push_back(std::to_string(lineno) + " - " + text);
  }

  void line(const std::string& text) {
    if (text.empty() || text[0] == '#') return;
    if (text[0] == '[') return header(text);
    if (!in_group) return fail("Not in group !");
    item(text);
  }

  // The items behind a faulty header are read into a group of their own.
  void header(const std::string& text) {
    in_group = true;
    rejected = text[text.size() - 1] != ']';
    if (rejected) {
      dropped = Group{text, {}};
      return fail("Invalid group-name brackets [" + text + "]");
    }
    const std::string name = trim(text.substr(1, text.size() - 2));
    rejected = find(&groups, name) != nullptr;
    if (rejected) {
      dropped = Group{name, {}};
      return fail("Duplicate " + name + " group");
    }
    groups.push_back(Group{name, {}});
  }

  void item(const std::string& text) {
    Group* const group = rejected ? &dropped : &groups.back();
    const std::size_t equals = text.find('=');
    if (equals == text.npos) return fail("Missing name/value delimiter [" + text + "]");
    Item item;
    item.name = trim(text.substr(0, equals));
    if (find(&group->items, item.name)) {
      return fail("Duplicate " + item.name + " item in group " + group->name);
    }
    if (values(text.substr(equals + 1), &item.values)) group->items.push_back(item);
  }

  bool values(const std::string& text, Strings* into) {
    std::string value;
    std::size_t begin = 0;
    for (std::size_t at = 0; at <= text.size(); ++at) {
      if (at < text.size() && text[at] == '\\') {
        if (++at == text.size()) {
          fail("Hanging escape [" + text.substr(begin) + "]");
          return false;
        }
        value += text[at];
      } else if (at < text.size() && text[at] != ';') {
        value += text[at];
      } else {
        if (!add(trim(value), into)) return false;
        value.clear();
        begin = at + 1;
      }
    }
    while (!into->empty() && into->back().empty()) into->pop_back();
    return true;
  }

  bool add(const std::string& value, Strings* into) {
    const bool quote_first = !value.empty() && value[0] == '"';
    const bool quote_last = !value.empty() && value[value.size() - 1] == '"';
    if (quote_first != quote_last) {
      fail("Mismatched quotes in value " + std::to_string(into->size()) + " [" + value + "]");
      return false;
    }
    if (!quote_first) {
      into->push_back(value);
    } else {
      into->push_back(value.size() == 1 ? "" : value.substr(1, value.size() - 2));
    }
    return true;
  }

  int lineno = 0;
  bool in_group = false;
  bool rejected = false;
  Group dropped;
};

// ---- a second dump ----

template <class Entry>
std::vector<Entry> in_alphabetical_order(std::vector<Entry> entries) {
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
    return strcasecmp(a.name.c_str(), b.name.c_str()) < 0;
  });
  return entries;
}

std::string escaped(const std::string& value) {
  std::string text;
  for (const char c : value) {
    if (c == ';' || c == '\\') text += '\\';
    text += c;
  }
  const bool white = !value.empty() && (is_white(value.front()) || is_white(value.back()));
  return white ? '"' + text + '"' : text;
}

std::string dump_of(const Content& content, const std::string& filename) {
  std::string text =
      "# Filename = " + filename + "\n# " + std::to_string(content.size()) + " Groups\n";
  for (const Group& group : in_alphabetical_order(content)) {
    text += "\n[" + group.name + "]\n# " + std::to_string(group.items.size()) + " Items\n";
    for (const Item& item : in_alphabetical_order(group.items)) {
      text += item.name + "=";
      for (std::size_t i = 0; i < item.values.size(); ++i) {
        text += (i == 0 ? "" : "; ") + escaped(item.values[i]);
      }
      text += "\n";
    }
  }
  return text;
}

std::string dump(const VrnConfig& config) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* const stream = open_memstream(&text, &size);
  config.dump(stream);
  std::fclose(stream);
  std::string result(text, size);
  std::free(text);
  return result;
}

// The dump says the same, unless a value has a quote at an end, or a line has become too long by
// what the dump adds.
bool survives_dump(const Content& content, const std::string& text) {
  for (const Group& group : content) {
    for (const Item& item : group.items) {
      for (const std::string& value : item.values) {
        if (!value.empty() && (value.front() == '"' || value.back() == '"')) return false;
      }
    }
  }
  std::size_t begin = 0;
  for (std::size_t end; (end = text.find('\n', begin)) != text.npos; begin = end + 1) {
    if (end - begin > 1599) return false;
  }
  return true;
}

// ---- what is held against what ----

template <class Entry>
Strings names(const std::vector<Entry>& entries) {
  Strings result;
  for (const Entry& entry : entries) result.push_back(entry.name);
  return result;
}

std::string other_case(std::string name) {
  for (char& c : name) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) c = static_cast<char>(c ^ 0x20);
  }
  return name;
}

bool is_any_of(const std::string& text, const Strings& words) {
  return std::any_of(words.begin(), words.end(), [&](const std::string& word) {
    return strcasecmp(word.c_str(), text.c_str()) == 0;
  });
}

bool is_decimal(const std::string& text) {
  const std::size_t digits = text.find_first_not_of("+-") == 1 ? 1 : 0;
  return digits < text.size() && text.find_first_not_of("0123456789", digits) == text.npos;
}

template <class Query>
bool is_refused(Query query) {
  try {
    query();
    return false;
  } catch (const VrnException& e) {
    require(e.err() == 9, "code %d for [%s]", e.err(), e.what());
    return true;
  }
}

void check_value(const VrnConfig& config, const std::string& group, const std::string& item,
                 unsigned index, const std::string& value) {
  require(config.value(group, item, true, index) == value, "another value of %s", item.c_str());
  const bool is_true = is_any_of(value, {"Yes", "Y", "true"});
  const bool is_bool = value.empty() || is_true || is_any_of(value, {"No", "N", "false"});
  bool result = false;
  const auto boolval = [&] { result = config.boolval(group, item, false, index); };
  require(is_refused(boolval) != is_bool && result == is_true, "boolean of [%s]", value.c_str());
  int number = 0;
  const auto intval = [&] { number = config.intval(group, item, 7, index); };
  require(is_refused(intval) == (!value.empty() && !is_decimal(value)), "[%s]", value.c_str());
  if (value.empty()) require(number == 7, "the default of an integer");
  if (is_decimal(value)) {
    require(number == static_cast<int>(std::strtol(value.c_str(), nullptr, 10)),
            "[%s] is read as %d", value.c_str(), number);
  }
}

void check_content(const VrnConfig& config, const Content& content) {
  require(config.groups() == names(content), "other groups");
  for (const Group& group : content) {
    const std::string group_name = other_case(group.name);
    require(config.exists(group_name), "no group [%s]", group_name.c_str());
    require(config.items(group_name, true) == names(group.items), "other items");
    for (const Item& item : group.items) {
      const std::string name = other_case(item.name);
      require(config.exists(group_name, name), "no item [%s]", name.c_str());
      require(config.values(group_name, name, true) == item.values, "other values of [%s]",
              name.c_str());
      for (unsigned i = 0; i < item.values.size(); ++i) {
        check_value(config, group_name, name, i, item.values[i]);
      }
      const auto beyond = static_cast<unsigned>(item.values.size());
      require(config.value(group_name, name, false, beyond).empty(), "one value more");
      require(is_refused([&] { config.value(group_name, name, true, beyond); }), "one value more");
    }
  }
}

class AllErrors : public vornfc::ConfigSink {
 public:
  explicit AllErrors(const MemoryFile& file) {
    std::FILE* const in = std::fopen(file.path.c_str(), "re");
    require(in != nullptr, "no stream");
    vornfc::ConfigContent content;
    vornfc::ConfigParser(in, &content, this).parse_file();
    std::fclose(in);
  }
  void onError(int lineno, const std::string& text) override {
    errors.push_back(std::to_string(lineno) + " - " + text);
  }
  Strings errors;
};

void check_dump(const VrnConfig& config, const Content& content, const MemoryFile& file) {
  const std::string text = dump(config);
  require(text == dump_of(content, file.path), "another dump:\n%s", text.c_str());
  if (!survives_dump(content, text)) return;
  const MemoryFile dumped(text);
  const Reading again(text);
  require(again.errors.empty(), "the dump is faulty:\n%s", text.c_str());
  const VrnConfig reread(dumped.path);
  check_content(reread, again.groups);
  const std::string second = dump(reread);
  require(second.substr(second.find('\n')) == text.substr(text.find('\n')),
          "the dump does not read back as the same");
}

void check_rejected(const MemoryFile& file, const std::string& error) {
  try {
    const VrnConfig config(file.path);
    require(false, "accepted in spite of %s", error.c_str());
  } catch (const VrnException& e) {
    const std::string expected = "VrnConfig " + file.path + ":" + error;
    require(e.what() == expected.substr(0, 1023), "[%s] instead of [%s]", e.what(),
            expected.c_str());
    require(e.err() == 9, "code %d", e.err());
  }
}

// The groups above the faulty line are the content then.
void check_update(const std::string& text, const Reading& reading) {
  const MemoryFile file("[before]\na=b\n");
  VrnConfig config(file.path);
  const VrnConfig copy(config);
  file.write(text);
  require(is_refused([&] { config.update(); }) == !reading.errors.empty(), "update()");
  check_content(config, reading.before_error);
  check_content(VrnConfig(config), reading.before_error);
  require(copy.groups() == Strings{"before"}, "a copy has changed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const Reading reading(text);
  const MemoryFile file(text);
  require(AllErrors(file).errors == reading.errors, "another list of errors");
  if (reading.errors.empty()) {
    const VrnConfig config(file.path);
    check_content(config, reading.groups);
    check_dump(config, reading.groups, file);
  } else {
    check_rejected(file, reading.errors[0]);
  }
  check_update(text, reading);
  return 0;
}
