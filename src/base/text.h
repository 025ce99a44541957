#pragma once

#include <cstddef>
#include <string>

namespace lumora {

// The first `count` characters (code points) of UTF-8 text.
std::string firstCharacters(const std::string& text, std::size_t count);

}  // namespace lumora
