#pragma once

#include <map>
#include <string>

namespace lumora::tools {

// The first line of what a shell command prints. Throws what `outputOf` throws.
std::string firstLineOf(const std::string& command);

// Where, when and with what figures are measured: texts by name. Runs other programs; what is
// missing says so in its text.
std::map<std::string, std::string> describeMachine();

}  // namespace lumora::tools
