#pragma once

#include <cstddef>
#include <exception>
#include <string>

namespace lumora {

// The first `count` characters (code points) of UTF-8 text.
std::string firstCharacters(const std::string& text, std::size_t count);

// What went wrong: the system's text, such as "Too many open files", or else the exception's own.
std::string reasonOf(const std::exception& error);
// The same for an errno.
std::string reasonOf(int error);

}  // namespace lumora
