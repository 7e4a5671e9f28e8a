#pragma once
// Reads a configuration line by line. The one parser of the format: the library stops at the first
// error, a checker of files is told every one.

#include "vornfc/config.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

namespace vornfc {

// White space in a configuration file, whatever the sign of char. Most characters are printing ones
// of ASCII, which are white space in no locale.
inline bool is_space(char c) {
  return (c <= ' ' || c > '~') && std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Texts that differ in the case of ASCII letters alone have the same hash: it leaves out the bit
// that tells the cases. Eight characters at a time, the last ones overlapping those ahead.
inline std::uint32_t nocase_hash(std::string_view text) {
  constexpr std::uint64_t CASE_BITS = 0x2020202020202020;
  constexpr std::uint64_t FACTOR = 0x9e3779b97f4a7c15;
  constexpr std::size_t STEP = sizeof(std::uint64_t);
  std::uint64_t hash = text.size();
  // A factor's bits reach only those above them in the product: the upper half goes down again.
  const auto mix = [&hash](std::uint64_t word) {
    hash = (hash ^ (word | CASE_BITS)) * FACTOR;
    hash ^= hash >> 32;
  };
  std::uint64_t word = 0;
  if (text.size() >= STEP) {
    for (std::size_t at = 0; at + STEP < text.size(); at += STEP) {
      std::memcpy(&word, text.data() + at, STEP);
      mix(word);
    }
    std::memcpy(&word, text.data() + text.size() - STEP, STEP);
  } else {
    for (const char c : text) word = word << 8 | static_cast<unsigned char>(c);
  }
  mix(word);
  return static_cast<std::uint32_t>((hash * FACTOR) >> 32);
}

// Whether strcasecmp() takes characters of the text for others than the hash does, as it may in an
// 8-bit locale and in a Turkish one.
bool has_cases_beyond_ascii(std::string_view text);

// Values by their names, which are kept as they are written and found without regard to case: equal
// is what strcasecmp() takes for equal, so a name ends at a NUL character. The entries are in the
// order of their addition, and stay where they are until the map is destroyed or assigned to.
//
// A hash table of positions beside the entries: a look-up in a large configuration costs what it
// touches of the memory, and an allocation for each entry would be much of the time to load one.
template <class Value>
class NocaseMap {
 public:
  using Entries = std::deque<std::pair<const std::string, Value>>;
  using const_iterator = typename Entries::const_iterator;

  std::size_t size() const { return entries.size(); }
  const_iterator begin() const { return entries.begin(); }
  const_iterator end() const { return entries.end(); }

  // `hash`: of the name.
  const_iterator find(std::string_view name, std::uint32_t hash) const {
    for (std::size_t at = hash; !slots.empty(); ++at) {
      const Slot& slot = slots[at & (slots.size() - 1)];
      if (slot.position == 0) break;
      if (slot.hash != hash) continue;
      if (const auto it = begin() + (slot.position - 1); is_same(it->first, name)) return it;
    }
    // The application's locale may have letters that the hash takes for different ones.
    if (has_cases_beyond_ascii(name)) {
      return std::find_if(begin(), end(),
                          [name](const auto& entry) { return is_same(entry.first, name); });
    }
    return end();
  }
  const_iterator find(const std::string& name) const {
    const std::string_view text = name.c_str();
    return find(text, nocase_hash(text));
  }
  std::size_t count(const std::string& name) const { return find(name) == end() ? 0 : 1; }
  const Value& at(const std::string& name) const {
    if (const auto it = find(name); it != end()) return it->second;
    throw std::out_of_range(name);
  }

  // The name is not there yet. The value is made of `from`.
  template <class From>
  std::pair<const std::string, Value>& add(std::string_view name, std::uint32_t hash, From&& from) {
    entries.emplace_back(std::piecewise_construct, std::forward_as_tuple(name),
                         std::forward_as_tuple(std::forward<From>(from)));
    if (entries.size() * 4 > slots.size() * 3) {
      const std::vector<Slot> former =
          std::exchange(slots, std::vector<Slot>(slots.empty() ? 16 : slots.size() * 2));
      for (const Slot& slot : former) {
        if (slot.position != 0) free_slot(slot.hash) = slot;
      }
    }
    free_slot(hash) = {hash, static_cast<std::uint32_t>(entries.size())};
    return entries.back();
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;
    std::uint32_t position = 0;  // of the entry, counted from 1; 0: unused
  };

  static bool is_same(std::string_view a, std::string_view b) {
    return a.size() == b.size() && (a == b || strncasecmp(a.data(), b.data(), a.size()) == 0);
  }

  Slot& free_slot(std::size_t at) {
    while (slots[at & (slots.size() - 1)].position != 0) ++at;
    return slots[at & (slots.size() - 1)];
  }

  Entries entries;
  std::vector<Slot> slots;  // a power of two of them, or none; a quarter is unused
};

// The texts of a configuration, side by side in a few blocks: two allocations for each item were
// most of the time that it takes to load a large file.
class TextStore {
 public:
  // Valid as long as the store.
  std::string_view add(std::string_view text);

 private:
  std::vector<std::unique_ptr<char[]>> blocks;  // of growing size; the last has room for texts
  char* room = nullptr;
  std::size_t left = 0;
  std::size_t next_size = 1024;  // of a block; doubles
};

// The values of an item, in a TextStore that outlives them: each is a length, a text and a NUL.
class Values {
 public:
  class const_iterator {
   public:
    explicit const_iterator(const char* value) : at(value) {}
    std::string operator*() const { return std::string(view()); }
    const_iterator& operator++() {
      at = view().data() + view().size() + 1;
      return *this;
    }
    bool operator!=(const_iterator other) const { return at != other.at; }

    std::string_view view() const {  // with a NUL behind it
      std::uint32_t size;
      std::memcpy(&size, at, sizeof size);
      return {at + sizeof size, size};
    }

   private:
    const char* at;
  };

  Values() = default;
  Values(std::string_view stored, std::size_t number)
      : text(stored.data()),
        length(static_cast<std::uint32_t>(stored.size())),
        count(static_cast<std::uint32_t>(number)) {}

  // Adds a value to a text of values.
  static void append(std::string* text, std::string_view value) {
    const auto size = static_cast<std::uint32_t>(value.size());
    text->append(reinterpret_cast<const char*>(&size), sizeof size).append(value) += '\0';
  }

  std::size_t size() const { return count; }
  bool empty() const { return count == 0; }
  const_iterator begin() const { return const_iterator(text); }
  const_iterator end() const { return const_iterator(text + length); }
  std::string_view view(std::size_t index) const {
    const_iterator it = begin();
    while (index-- > 0) ++it;
    return it.view();
  }
  std::string operator[](std::size_t index) const { return std::string(view(index)); }
  std::string front() const { return (*this)[0]; }

  operator std::vector<std::string>() const {  // NOLINT(google-explicit-constructor)
    std::vector<std::string> copies;
    copies.reserve(count);
    for (const_iterator it = begin(); it != end(); ++it) copies.emplace_back(it.view());
    return copies;
  }
  friend bool operator==(const Values& a, const std::vector<std::string>& b) {
    return std::vector<std::string>(a) == b;
  }

 private:
  const char* text = nullptr;
  std::uint32_t length = 0;
  std::uint32_t count = 0;
};

// Names are kept as they are written in the file; maps find them without regard to case.
struct item_t {
  Values values;
};

struct group_t {
  explicit group_t(std::string_view given) : name(given) { itemnams.reserve(8); }
  group_t(const group_t& other);
  group_t(group_t&& other) = default;
  group_t& operator=(group_t&& other) = default;
  ~group_t() = default;

  std::string name;
  NocaseMap<item_t> items;
  std::vector<const std::string*> itemnams;  // the keys of `items` in the order of the file
};

struct ConfigContent {
  NocaseMap<group_t> groups;
  std::vector<std::string> grpnams;  // in the order of the file
  std::shared_ptr<TextStore> texts;  // of the items; copies share it, as nobody changes a text
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
  void parse_item(std::string_view text);
  Values parse_values(std::string_view text);
  std::string_view next_value(std::string_view* text);

  std::FILE* in;
  ConfigContent* out;
  ConfigSink* sink;
  char line[MAX_LINE] = {};
  char scratch[MAX_LINE];   // a value without its escapes
  std::string packed;       // the values of an item
  bool unfinished = false;  // the rest of the line is still to be skipped
  int lineno = 0;

  group_t* group = nullptr;  // of the lines that follow; null before the first header
  group_t rejected{""};      // stands in for the group of a faulty header
};

}  // namespace vornfc
