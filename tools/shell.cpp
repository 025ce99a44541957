#include "tools/shell.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace lumora::tools {

std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (const char character : text) {
    if (character == '\'')
      quoted += "'\\''";
    else
      quoted += character;
  }
  return quoted + "'";
}

std::string outputOf(const std::string& command) {
  std::FILE* pipe = popen((command + " 2>&1").c_str(), "re");
  if (pipe == nullptr) throw std::system_error(errno, std::generic_category(), command);
  std::string output;
  std::array<char, 4096> bytes;
  while (const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), pipe))
    output.append(bytes.data(), count);
  const int status = pclose(pipe);
  return status == 0 ? output : output + "(ended with " + std::to_string(status) + ")";
}

// Frames keep their own times on the way out: rounded to a guessed rate, some would coincide.
std::string decodeErrors(const std::string& path) {
  return outputOf("ffmpeg -v error -xerror -nostdin -i " + shellQuoted(path) +
                  " -fps_mode passthrough -enc_time_base -1 -f null -");
}

}  // namespace lumora::tools
