#include "config_parser.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace vornfc {

namespace {

// What is wrong with a line. Ends the work on that line and goes no further than parse_file().
struct Fault {
  std::string text;
};

[[noreturn]] void fail(const std::string& text) {
  throw Fault{text};
}

std::string bracketed(std::string_view text) {
  return "[" + std::string(text) + "]";
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

// Quotes stand at both ends of a value or at none. Escapes are gone by now, so a quote at an end
// counts however it was written, and a lone one stands at both ends.
bool well_quoted(std::string_view value) {
  return value.empty() || (value.front() == '"') == (value.back() == '"');
}

std::string_view unquoted(std::string_view value) {
  if (value.empty() || value.front() != '"') return value;
  return value.size() == 1 ? std::string_view() : value.substr(1, value.size() - 2);
}

}  // namespace

bool has_cases_beyond_ascii(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char letter) {
    const auto c = static_cast<unsigned char>(letter);
    if (c == 'i' || c == 'I') return std::tolower('I') != 'i';
    return c > 0x7f && (std::tolower(c) != c || std::toupper(c) != c);
  });
}

std::string_view TextStore::add(std::string_view text) {
  if (text.size() > left) {
    const std::size_t size = std::max(text.size(), next_size);
    blocks.push_back(std::unique_ptr<char[]>(new char[size]));
    room = blocks.back().get();
    left = size;
    if (next_size < 65536) next_size *= 2;
  }
  char* const stored = room;
  text.copy(stored, text.size());
  room += text.size();
  left -= text.size();
  return {stored, text.size()};
}

void ConfigSink::onLine(int, std::string_view) {}
void ConfigSink::onGroup(int, const group_t&) {}
void ConfigSink::onItem(int, const group_t&, const std::string&, const item_t&) {}

group_t::group_t(const group_t& other) : name(other.name), items(other.items) {
  for (const std::string* item : other.itemnams) itemnams.push_back(&items.find(*item)->first);
}

// The scratch memory is as it comes: a value is written to it before it is looked at.
// cppcheck-suppress uninitMemberVar
ConfigParser::ConfigParser(std::FILE* stream, ConfigContent* content, ConfigSink* reports)
    : in(stream), out(content), sink(reports) {
  if (!out->texts) out->texts = std::make_shared<TextStore>();
}

void ConfigParser::parse_file() {
  while (read_line()) {
    try {
      parse_line();
    } catch (const Fault& fault) {
      sink->onError(lineno, fault.text);
    }
  }
  if (std::ferror(in)) {
    sink->onError(lineno + 1, "Read error " + bracketed(std::strerror(errno)));
  }
}

// False at the end of the file, and after a read error, whose errno is then still there.
bool ConfigParser::read_line() {
  for (int c = 0; unfinished && c != '\n' && c != EOF;) c = std::fgetc(in);
  unfinished = false;
  if (!std::fgets(line, MAX_LINE, in) || std::ferror(in)) return false;
  ++lineno;
  return true;
}

void ConfigParser::parse_line() {
  const std::size_t length = std::strlen(line);
  sink->onLine(lineno, {line, length});
  if (length == 0 || line[length - 1] != '\n') reject_line(length);
  const std::string_view text = trimmed({line, length - 1});
  if (text.empty() || text.front() == '#') return;
  if (text.front() == '[') return parse_group(text);
  parse_item(text);
}

// The text does not end with a line end: the line has more than the buffer holds, or ends with the
// file, or there is a NUL byte. Behind a NUL byte the line end may follow in the buffer; if it does
// not, the line fills the buffer and goes on in the file.
void ConfigParser::reject_line(std::size_t length) {
  unfinished = !std::memchr(line, '\n', MAX_LINE);
  if (length == MAX_LINE - 1 || std::feof(in)) {
    fail("Line too long, max=" + std::to_string(MAX_LINE));
  }
  fail("NUL byte in line");
}

void ConfigParser::parse_group(std::string_view text) {
  if (text.back() != ']') {
    reject_group(text);
    fail("Invalid group-name brackets " + bracketed(text));
  }
  const std::string_view name = trimmed(text.substr(1, text.size() - 2));
  const std::uint32_t hash = nocase_hash(name);
  if (out->groups.find(name, hash) != out->groups.end()) {
    reject_group(name);
    fail("Duplicate " + std::string(name) + " group");
  }
  group = &out->groups.add(name, hash, name).second;
  out->grpnams.emplace_back(name);
  sink->onGroup(lineno, *group);
}

void ConfigParser::reject_group(std::string_view name) {
  rejected = group_t(name);
  group = &rejected;
}

void ConfigParser::parse_item(std::string_view text) {
  if (!group) fail("Not in group !");
  const std::size_t delimiter = text.find('=');
  if (delimiter == text.npos) fail("Missing name/value delimiter " + bracketed(text));
  const std::string_view name = trimmed(text.substr(0, delimiter));
  const std::uint32_t hash = nocase_hash(name);
  if (group->items.find(name, hash) != group->items.end()) {
    fail("Duplicate " + std::string(name) + " item in group " + group->name);
  }
  const auto& entry =
      group->items.add(name, hash, item_t{parse_values(text.substr(delimiter + 1))});
  group->itemnams.push_back(&entry.first);
  sink->onItem(lineno, *group, entry.first, entry.second);
}

// Empty values at the end do not count.
Values ConfigParser::parse_values(std::string_view text) {
  packed.clear();
  std::size_t length = 0;
  std::size_t count = 0;
  for (std::size_t index = 0; !text.empty(); ++index) {
    const std::string_view value = trimmed(next_value(&text));
    if (!well_quoted(value)) {
      fail("Mismatched quotes in value " + std::to_string(index) + " " + bracketed(value));
    }
    Values::append(&packed, unquoted(value));
    if (unquoted(value).empty()) continue;
    length = packed.size();
    count = index + 1;
  }
  return {out->texts->add({packed.data(), length}), count};
}

// Takes the first value and its separator off the text. The result, which has no escapes any more,
// is valid until the next call.
std::string_view ConfigParser::next_value(std::string_view* text) {
  const std::string_view all = *text;
  std::string_view value = all.substr(0, all.find(';'));
  std::size_t used = value.size();
  if (value.find('\\') != value.npos) {
    std::size_t length = 0;
    for (used = 0; used < all.size() && all[used] != ';'; ++used) {
      if (all[used] == '\\' && ++used == all.size()) fail("Hanging escape " + bracketed(all));
      scratch[length++] = all[used];
    }
    value = {scratch, length};
  }
  text->remove_prefix(std::min(used + 1, all.size()));
  return value;
}

}  // namespace vornfc
