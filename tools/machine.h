#pragma once

#include <map>
#include <string>

namespace lumora::tools {

// The first line of what a shell command prints. Throws what `outputOf` throws.
std::string firstLineOf(const std::string& command);

// Texts about the machine, the time and the versions of programs, by name. Runs other programs for
// them. If such a program is missing, the text is "not found" or an error.
std::map<std::string, std::string> describeMachine();

}  // namespace lumora::tools
