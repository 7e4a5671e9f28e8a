#include "trc_symbols.h"
#include "vornsupport/support.h"

#include <cstdio>

const char* trc_lvl2sym(int level) {
  if (level >= 0 && static_cast<std::size_t>(level) < TRC_SYMBOLS.size()) {
    // cppcheck-suppress CastIntegerToAddressAtReturn  // the elements are texts
    return TRC_SYMBOLS[static_cast<std::size_t>(level)];
  }
  thread_local char numbered[16];  // the L, a sign, ten digits
  std::snprintf(numbered, sizeof numbered, "L%d", level);
  return numbered;
}
