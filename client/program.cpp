#include "client/program.h"

#include <lumora/helper.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace lumora::client {
namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): no code here sets it
  return value == nullptr ? "" : value;
}

bool isProgram(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::filesystem::path findProgram(const std::filesystem::path& named) {
  const std::filesystem::path wanted =
      named.empty() ? std::filesystem::path(environment("LUMORA_VIDEO_PATH")) : named;
  if (!wanted.empty()) {
    // An absolute path, because a name without a slash would be looked up on the PATH.
    if (isProgram(wanted)) return std::filesystem::absolute(wanted);
    throw StartError("there is no program at " + wanted.string());
  }
  std::istringstream folders(environment("PATH"));
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (folder.empty()) continue;
    auto path = std::filesystem::absolute(folder) / "lumora-video";
    if (isProgram(path)) return path;
  }
  throw StartError(
      "lumora-video was not found: install the package of that name, or name the program in "
      "LUMORA_VIDEO_PATH");
}

}  // namespace lumora::client
