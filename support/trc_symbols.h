/// The trace levels that have a name of their own, for the two functions that look them up. Any
/// other level's symbol is an L and its number.

#pragma once

#include <array>

/// Indexed by level.
inline constexpr std::array<const char*, 6> TRC_SYMBOLS{"MUST", "ERR", "WARN",
                                                        "INFO", "DBG", "TRC"};
