#include "trc_symbols.h"
#include "vornsupport/support.h"

#include <strings.h>

#include <charconv>
#include <string_view>

namespace {

constexpr int UNKNOWN = -1;

int numbered_level(std::string_view symbol) {
  if (symbol.empty() || (symbol[0] != 'L' && symbol[0] != 'l')) return UNKNOWN;
  int level = 0;
  const char* const end = symbol.data() + symbol.size();
  const auto [stop, error] = std::from_chars(symbol.data() + 1, end, level);
  return error == std::errc() && stop == end ? level : UNKNOWN;
}

}  // namespace

int trc_sym2lvl(const char* symbol) {
  if (symbol == nullptr) return UNKNOWN;
  for (std::size_t level = 0; level < TRC_SYMBOLS.size(); ++level) {
    if (strcasecmp(symbol, TRC_SYMBOLS[level]) == 0) return static_cast<int>(level);
  }
  return numbered_level(symbol);
}
