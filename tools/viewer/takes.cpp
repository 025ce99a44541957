#include "tools/viewer/takes.h"

#include <array>
#include <ctime>
#include <filesystem>
#include <stdexcept>

namespace lumora::viewer {
namespace {

// "take-20260131-093000.mp4", or "take-20260131-093000-2.mp4" when the first name is taken. Where
// the folder can't be searched every name counts as free, and the helper refuses the take.
std::string freeName(const std::filesystem::path& folder) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::array<char, 32> stamp{};
  std::strftime(stamp.data(), stamp.size(), "take-%Y%m%d-%H%M%S", &local);
  const std::string start = folder / stamp.data();
  std::string path = start + ".mp4";
  std::error_code unknown;
  for (int i = 2; std::filesystem::exists(path, unknown); ++i) {
    path = start + "-" + std::to_string(i) + ".mp4";
  }
  return path;
}

bool isFolder(const std::string& name) {
  std::error_code unknown;
  const bool isPath = name.starts_with('/') && name.find('\0') == std::string::npos;
  return isPath && std::filesystem::is_directory(name, unknown);
}

}  // namespace

client::TakeOptions planTake(const StartTake& wanted, double startedAt) {
  if (!isFolder(wanted.folder)) {
    throw std::runtime_error("There is no folder \"" + wanted.folder +
                             "\". Give its whole path, beginning with \"/\".");
  }
  return {.path = freeName(wanted.folder),
          .resolution = wanted.resolution,
          .targetFPS = wanted.targetFPS,
          .steady = wanted.steady,
          .startedAt = startedAt};
}

}  // namespace lumora::viewer
