#include "tools/viewer/takes.h"

#include <lumora/recover.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <regex>
#include <stdexcept>

namespace lumora::viewer {
namespace {

// "take-20260131-093000.mp4", or "take-20260131-093000-2.mp4" when the first name is taken. If
// the folder can't be searched, every name counts as free, and the helper refuses the take.
std::string freeName(const std::filesystem::path& folder) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "take-%Y%m%d-%H%M%S", &local);
  const std::string start = folder / stamp;
  std::string path = start + ".mp4";
  std::error_code unknown;
  for (int i = 2; std::filesystem::exists(path, unknown); ++i) {
    path = start + "-" + std::to_string(i) + ".mp4";
  }
  return path;
}

}  // namespace

client::TakeOptions planTake(const StartTake& wanted, client::Uptime::time_point startedAt) {
  const std::string& folder = wanted.folder;
  std::error_code unknown;
  const bool isPath = folder.starts_with('/') && folder.find('\0') == std::string::npos;
  if (!isPath || !std::filesystem::is_directory(folder, unknown)) {
    throw std::runtime_error("There is no folder \"" + folder +
                             "\". Give its whole path, beginning with \"/\".");
  }
  const auto size = client::parseTakeSize(wanted.resolution);
  if (!size) throw std::runtime_error("A take can't have the size \"" + wanted.resolution + "\".");
  return {.path = freeName(folder),
          .profile = {*size, client::TakeRate{wanted.targetFPS}},
          .steady = wanted.steady,
          .startedAt = startedAt,
          .sound = wanted.sound};
}

std::size_t countInterruptedTakes(const std::string& folder) {
  static const std::regex staging(R"(.+\.mp4\.[0-9A-Fa-f-]{36}\.partial)");
  std::size_t count = 0;
  std::error_code unknown;
  for (std::filesystem::directory_iterator entry(folder, unknown), end; entry != end;
       entry.increment(unknown)) {
    count += std::regex_match(entry->path().filename().string(), staging) ? 1 : 0;
  }
  return count;
}

std::vector<std::string> recoverTakes(const std::string& folder,
                                      const std::filesystem::path& helper) {
  std::vector<std::string> lines;
  for (const client::RecoveredTake& take : client::recoverTakes(folder, helper)) {
    char figures[64];
    std::snprintf(figures, sizeof figures, ": %.1f s", take.duration.count());
    lines.push_back(take.left.empty()
                        ? take.path.string() + figures
                        : take.staging.string() + " keeps its name, because " + take.left);
  }
  return lines;
}

}  // namespace lumora::viewer
