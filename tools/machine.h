#pragma once

#include <map>
#include <string>

namespace lumora::tools {

// The first line of what a shell command prints. Throws what `outputOf` throws.
std::string firstLineOf(const std::string& command);

// Texts about the machine, the time and the versions of programs, by name. Commands print most
// of them. If a command prints nothing, its text is "not found". If a command's program is missing,
// its text may be an error.
std::map<std::string, std::string> describeMachine();

}  // namespace lumora::tools
