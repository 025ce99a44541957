#pragma once

#include <filesystem>

namespace lumora::client {

// The path of the helper: `named`, else LUMORA_VIDEO_PATH, else "lumora-video" in a folder of PATH.
// Throws StartError if there is no program. If `named` and LUMORA_VIDEO_PATH are empty, the
// error says what to install.
std::filesystem::path findProgram(const std::filesystem::path& named);

}  // namespace lumora::client
