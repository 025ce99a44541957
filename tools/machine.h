#pragma once

#include <map>
#include <string>

namespace lumora::tools {

// The first line of what a shell command prints. Throws what `outputOf` throws.
std::string firstLineOf(const std::string& command);

// The machine, the time and the versions of programs, as texts by name. Runs other programs; if one
// is missing, its text is "not found" or an error.
std::map<std::string, std::string> describeMachine();

}  // namespace lumora::tools
