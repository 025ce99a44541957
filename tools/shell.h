#pragma once

// Other programs, run through the shell.

#include <string>

namespace lumora::tools {

// `text` as one word of a shell command.
std::string shellQuoted(const std::string& text);

// What a command prints, on both streams, and how it ended unless it was well. Throws
// std::system_error where there is no shell.
std::string outputOf(const std::string& command);

// What ffmpeg complains about when it decodes the whole file; empty: it is sound.
std::string decodeErrors(const std::string& path);

}  // namespace lumora::tools
