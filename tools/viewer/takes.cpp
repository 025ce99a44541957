#include "tools/viewer/takes.h"

#include <array>
#include <ctime>

namespace lumora::viewer {
namespace {

// A name that nothing has: "take-20260131-093000.mp4", then "take-20260131-093000-2.mp4". A folder
// that may not be searched is for the helper to refuse.
std::filesystem::path freeName(const std::filesystem::path& folder) {
  std::error_code unknown;
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  std::array<char, 32> stamp{};
  std::strftime(stamp.data(), stamp.size(), "take-%Y%m%d-%H%M%S", &local);
  std::filesystem::path path = folder / (std::string(stamp.data()) + ".mp4");
  for (int i = 2; std::filesystem::exists(path, unknown); ++i) {
    path = folder / (std::string(stamp.data()) + "-" + std::to_string(i) + ".mp4");
  }
  return path;
}

}  // namespace

std::optional<client::TakeOptions> Takes::plan(const StartTake& wanted, double uptime,
                                               std::string& problem) const {
  const std::filesystem::path folder(wanted.folder);
  std::error_code error;
  const bool isName = wanted.folder.find('\0') == std::string::npos;
  if (!isName || !folder.is_absolute() || !std::filesystem::is_directory(folder, error)) {
    problem = "There is no folder \"" + wanted.folder + "\" (give its whole path).";
    return std::nullopt;
  }
  return client::TakeOptions{.path = freeName(folder).string(),
                             .resolution = wanted.resolution,
                             .targetFPS = wanted.targetFPS,
                             .steady = wanted.steady,
                             .startedAt = uptime};
}

void Takes::eventCame(const nlohmann::json& event) {
  if (event.value("type", "") != "recording" || event.value("state", "") != "saved") return;
  saved_[event.value("id", "")] = event.value("path", "");
}

std::optional<std::filesystem::path> Takes::movie(const std::string& name) const {
  const std::filesystem::path wanted(name);
  const auto found = saved_.find(wanted.stem());
  if (wanted.extension() != ".mp4" || wanted.has_parent_path() || found == saved_.end()) {
    return std::nullopt;
  }
  return found->second;
}

}  // namespace lumora::viewer
