#pragma once

#include <cstddef>
#include <exception>
#include <string>

namespace lumora {

// The first `count` characters (code points) of UTF-8 text.
std::string firstCharacters(const std::string& text, std::size_t count);

// What went wrong, in the system's words if it has some: "Too many open files".
std::string reasonOf(const std::exception& error);
// The same for an errno.
std::string reasonOf(int error);

}  // namespace lumora
