#pragma once
// Texts for JSON.

#include <string>
#include <string_view>

namespace vornfc::conf {

// `text` as a JSON string, double quotes included. A byte that is not part of a UTF-8 character
// becomes the character of its number, "\u00e9" for 0xe9: the meaning of the byte in Latin-1.
std::string json_string(std::string_view text);

}  // namespace vornfc::conf
