// The parser of configuration files told of every error, as a checker of files uses it.

#include "config_parser.h"

#include <gtest/gtest.h>
#include <stdio.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

using vornfc::ConfigContent;
using vornfc::ConfigParser;
using vornfc::ConfigSink;
using vornfc::group_t;
using vornfc::item_t;

namespace {

using Texts = std::vector<std::string>;

std::string numbered(int lineno, const std::string& text) {
  return std::to_string(lineno) + ": " + text;
}

// Keeps what it is told, as "<line>: <text>".
class Collector : public ConfigSink {
 public:
  void onLine(int lineno, std::string_view line) override {
    lines.push_back(numbered(lineno, std::string(line)));
  }
  void onGroup(int lineno, const group_t& group) override {
    groups.push_back(numbered(lineno, group.name));
  }
  void onItem(int lineno, const group_t& group, const std::string& name,
              const item_t& item) override {
    std::string text = group.name + "." + name;
    for (const std::string& value : item.values) text += "|" + value;
    items.push_back(numbered(lineno, text));
  }
  void onError(int lineno, const std::string& text) override {
    errors.push_back(numbered(lineno, text));
  }

  Texts lines, groups, items, errors;
};

struct Parsed : Collector {
  explicit Parsed(std::string text) {
    std::FILE* in = fmemopen(text.data(), text.size(), "r");
    ConfigParser(in, &content, this).parse_file();
    std::fclose(in);
  }

  ConfigContent content;
};

std::string line_of(std::size_t length) {
  return "k=" + std::string(length - 2, 'v');
}

TEST(ConfigParserTest, TellsLinesGroupsAndItemsInTheOrderOfTheFile) {
  const Parsed file("# note\n[B]\n  y = 1; 2 \n\n[A]\nx=\n");
  EXPECT_EQ(file.lines,
            (Texts{"1: # note\n", "2: [B]\n", "3:   y = 1; 2 \n", "4: \n", "5: [A]\n", "6: x=\n"}));
  EXPECT_EQ(file.groups, (Texts{"2: B", "5: A"}));
  EXPECT_EQ(file.items, (Texts{"3: B.y|1|2", "6: A.x"}));
  EXPECT_EQ(file.errors, Texts{});
  EXPECT_EQ(file.content.grpnams, (Texts{"B", "A"}));
}

TEST(ConfigParserTest, ReportsEveryErrorAndReadsOn) {
  const Parsed file(
      "early=1\n"
      "[g]\n"
      "no delimiter\n"
      "a=1\n"
      "A=2\n"
      "b=\"open\n"
      "c=x\\\n"
      "[G]\n"
      "[broken\n"
      "[h]\n"
      "d=4");
  EXPECT_EQ(file.errors,
            (Texts{"1: Not in group !", "3: Missing name/value delimiter [no delimiter]",
                   "5: Duplicate A item in group g", "6: Mismatched quotes in value 0 [\"open]",
                   "7: Hanging escape [x\\]", "8: Duplicate G group",
                   "9: Invalid group-name brackets [[broken]", "11: Line too long, max=1601"}));
  EXPECT_EQ(file.groups, (Texts{"2: g", "10: h"}));
  EXPECT_EQ(file.items, Texts{"4: g.a|1"});
}

TEST(ConfigParserTest, ItemsOfAFaultyHeaderAreCheckedAndDropped) {
  const Parsed file("[g]\na=1\n[G]\na=2\na=3\n[h\nb=1\nB=2\nc\n[i]\na=4\n");
  EXPECT_EQ(file.errors,
            (Texts{"3: Duplicate G group", "5: Duplicate a item in group G",
                   "6: Invalid group-name brackets [[h]", "8: Duplicate B item in group [h",
                   "9: Missing name/value delimiter [c]"}));
  EXPECT_EQ(file.content.grpnams, (Texts{"g", "i"}));
  EXPECT_EQ(file.content.groups.at("g").items.at("a").values, Texts{"1"});
  EXPECT_EQ(file.content.groups.at("g").itemnams.size(), 1u);
}

TEST(ConfigParserTest, ItemWithAFaultyValueIsNotKept) {
  const Parsed file("[g]\na=\"\na=\"x\na=1\n");
  EXPECT_EQ(file.errors,
            (Texts{"3: Duplicate a item in group g", "4: Duplicate a item in group g"}));
  const Parsed other("[g]\na=\"x\na=1\n");
  EXPECT_EQ(other.errors, Texts{"2: Mismatched quotes in value 0 [\"x]"});
  EXPECT_EQ(other.items, Texts{"3: g.a|1"});
}

TEST(ConfigParserTest, RestOfALongLineIsSkipped) {
  const std::string longest = line_of(1599);
  for (const std::size_t length : {1600u, 1601u, 5000u}) {
    const Parsed file("[g]\n" + line_of(length) + "\n" + longest + "\n");
    EXPECT_EQ(file.errors, Texts{"2: Line too long, max=1601"}) << length;
    EXPECT_EQ(file.items, Texts{"3: g.k|" + std::string(1597, 'v')}) << length;
    EXPECT_EQ(file.lines[1], "2: " + line_of(1600));
  }
}

TEST(ConfigParserTest, LongLastLineIsOneError) {
  for (const std::size_t length : {1600u, 1601u, 5000u}) {
    EXPECT_EQ(Parsed("[g]\n" + line_of(length)).errors, Texts{"2: Line too long, max=1601"});
  }
}

TEST(ConfigParserTest, LineWithANulByteIsOneError) {
  const std::string nul(1, '\0');
  EXPECT_EQ(Parsed("[g]\nk=a" + nul + "b\nx=1\n").errors, Texts{"2: NUL byte in line"});
  EXPECT_EQ(Parsed("[g]\n" + nul + "\nx\n").errors,
            (Texts{"2: NUL byte in line", "3: Missing name/value delimiter [x]"}));
  EXPECT_EQ(Parsed("[g]\n#" + nul + std::string(3000, 'v') + "\nx\n").errors,
            (Texts{"2: NUL byte in line", "3: Missing name/value delimiter [x]"}));
  EXPECT_EQ(Parsed("[g]\n" + line_of(1590) + nul + "\nk=1\n" + nul + "\n").errors,
            (Texts{"2: NUL byte in line", "4: NUL byte in line"}));
}

TEST(ConfigParserTest, LastLineWithANulByteAndNoLineEndIsTooLong) {
  EXPECT_EQ(Parsed("[g]\nk=a" + std::string(1, '\0')).errors, Texts{"2: Line too long, max=1601"});
}

int stream_error = EIO;

// A stream that fails with `stream_error` behind `text`.
std::FILE* failing_stream(std::string* text) {
  cookie_io_functions_t io = {};
  io.read = [](void* cookie, char* buf, size_t size) -> ssize_t {
    auto* rest = static_cast<std::string*>(cookie);
    if (rest->empty()) {
      errno = stream_error;
      return -1;
    }
    const std::size_t count = std::min(size, rest->size());
    rest->copy(buf, count);
    rest->erase(0, count);
    return static_cast<ssize_t>(count);
  };
  return fopencookie(text, "r", io);
}

TEST(ConfigParserTest, ReadErrorNamesTheLineThatItInterrupts) {
  const std::vector<std::pair<std::string, Texts>> cases{
      {"", {"1: Read error [Input/output error]"}},
      {"[g]\na=1\n", {"3: Read error [Input/output error]"}},
      {"[g]\na=1\nb=", {"3: Read error [Input/output error]"}},
      {"[g]\n" + line_of(3000),
       {"2: Line too long, max=1601", "3: Read error [Input/output error]"}}};
  for (const auto& [text, errors] : cases) {
    std::string rest = text;
    std::FILE* in = failing_stream(&rest);
    Collector collector;
    ConfigContent content;
    ConfigParser(in, &content, &collector).parse_file();
    std::fclose(in);
    EXPECT_EQ(collector.errors, errors);
  }
}

// The C library then returns the part of a line that it has.
TEST(ConfigParserTest, LineThatWouldBlockIsAReadErrorToo) {
  stream_error = EAGAIN;
  std::string rest = "[g]\na=1\nb=";
  std::FILE* in = failing_stream(&rest);
  Collector collector;
  ConfigContent content;
  ConfigParser(in, &content, &collector).parse_file();
  std::fclose(in);
  EXPECT_EQ(collector.errors, Texts{"3: Read error [Resource temporarily unavailable]"});
  EXPECT_EQ(collector.items, Texts{"2: g.a|1"});
}

TEST(ConfigParserTest, ExceptionOfTheSinkLeavesTheParser) {
  struct Thrower : ConfigSink {
    void onError(int lineno, const std::string&) override { throw lineno; }
  } thrower;
  std::string text = "[g]\na=1\nwrong\n[h]\n";
  std::FILE* in = fmemopen(text.data(), text.size(), "r");
  ConfigContent content;
  EXPECT_THROW(ConfigParser(in, &content, &thrower).parse_file(), int);
  std::fclose(in);
  EXPECT_EQ(content.grpnams, Texts{"g"});
}

TEST(ConfigParserTest, CopiedGroupNamesItsOwnItems) {
  auto original = std::make_unique<Parsed>("[g]\nb=1\na=2\n");
  const ConfigContent copy = original->content;
  original.reset();
  const group_t& group = copy.groups.at("G");
  ASSERT_EQ(group.itemnams.size(), 2u);
  EXPECT_EQ(group.itemnams[0], &group.items.find("b")->first);
  EXPECT_EQ(group.itemnams[1], &group.items.find("a")->first);
}

// Among many names each is then found at once.
TEST(NocaseHashTest, NamesThatDifferAnywhereHardlyEverShareAHash) {
  for (std::size_t length = 1; length <= 40; ++length) {
    std::set<std::uint32_t> hashes;
    for (std::size_t at = 0; at < length; ++at) {
      for (char c = '0'; c <= '9'; ++c) {
        std::string name(length, 'x');
        name[at] = c;
        hashes.insert(vornfc::nocase_hash(name));
      }
    }
    EXPECT_GE(hashes.size(), 95 * length / 10) << "length " << length;
  }
}

TEST(NocaseHashTest, TheCaseOfALetterDoesNotCount) {
  EXPECT_EQ(vornfc::nocase_hash("Name"), vornfc::nocase_hash("nAME"));
  EXPECT_EQ(vornfc::nocase_hash("a.LONGER.name"), vornfc::nocase_hash("A.longer.NAME"));
}

}  // namespace
