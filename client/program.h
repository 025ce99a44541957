#pragma once

#include <string>

namespace lumora::client {

// The path of the helper: `named`, else LUMORA_VIDEO_PATH, else "lumora-video" in a folder of PATH.
// Throws StartError, which says what to install.
std::string findProgram(const std::string& named);

}  // namespace lumora::client
