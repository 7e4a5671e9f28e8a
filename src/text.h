#pragma once
// Small texts for log lines.

#include <cstdint>

namespace vornfc {

inline const char* yes_no(bool value) {
  return value ? "Yes" : "No";
}

// What "0x%x" prints of an address: its low 32 bits.
inline unsigned address32(const volatile void* object) {
  return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(object));
}

}  // namespace vornfc
