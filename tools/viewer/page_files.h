#pragma once

#include <optional>
#include <string_view>

namespace lumora::viewer {

// A part of the page by its name, as it was when the program was built.
std::optional<std::string_view> pageFile(std::string_view name);

}  // namespace lumora::viewer
