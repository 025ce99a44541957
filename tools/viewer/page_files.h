#pragma once

#include <optional>
#include <string_view>

namespace lumora::viewer {

// The contents of a file of the page. The files were embedded when the program was built. Nothing
// for an unknown name.
std::optional<std::string_view> pageFile(std::string_view name);

}  // namespace lumora::viewer
