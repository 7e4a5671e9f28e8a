#include "json.h"

#include <cstddef>
#include <cstdio>

namespace vornfc::conf {

namespace {

bool is_between(unsigned char low, char c, unsigned char high) {
  const auto byte = static_cast<unsigned char>(c);
  return low <= byte && byte <= high;
}

// The bytes of the UTF-8 character at the start of `text`, which is not empty; 0: there is none.
// The second byte excludes overlong forms, surrogates and numbers above 10FFFF.
std::size_t utf8_length(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return 1;
  if (lead < 0xc2 || lead > 0xf4) return 0;
  const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (text.size() < length) return 0;
  const unsigned char low = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
  const unsigned char high = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
  if (!is_between(low, text[1], high)) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (!is_between(0x80, text[i], 0xbf)) return 0;
  }
  return length;
}

std::string escape(char c) {
  char buffer[8];
  std::snprintf(buffer, sizeof buffer, "\\u%04x", unsigned{static_cast<unsigned char>(c)});
  return buffer;
}

}  // namespace

std::string json_string(std::string_view text) {
  std::string result = "\"";
  while (!text.empty()) {
    const std::size_t length = utf8_length(text);
    if (length == 0 || is_between(0, text[0], 0x1f)) {
      result += escape(text[0]);
    } else {
      if (text[0] == '"' || text[0] == '\\') result += '\\';
      result += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return result + '"';
}

}  // namespace vornfc::conf
