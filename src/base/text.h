#pragma once

#include <cstddef>
#include <exception>
#include <string>

namespace lumora {

// The first `count` characters (code points) of UTF-8 text.
std::string firstCharacters(const std::string& text, std::size_t count);

// What went wrong. For a system error or a lack of memory: the system's text, such as
// "Too many open files". For any other exception: its `what()`. If there is no memory for the text:
// "no memory".
std::string reasonOf(const std::exception& error);
// The system's text for an errno, or "no memory".
std::string reasonOf(int error);

}  // namespace lumora
