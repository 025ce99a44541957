#include "tools/viewer/takes.h"

#include <array>
#include <ctime>

#include "client/records.h"
#include "client/take_command.h"

namespace lumora::viewer {
namespace {

using Json = nlohmann::json;

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

std::optional<Json> Takes::start(const StartTake& wanted, double uptime, std::string& problem) {
  const std::filesystem::path folder(wanted.folder);
  std::error_code error;
  const bool isName = wanted.folder.find('\0') == std::string::npos;
  if (!isName || !folder.is_absolute() || !std::filesystem::is_directory(folder, error)) {
    problem = "There is no folder \"" + wanted.folder + "\" (give its whole path).";
    return std::nullopt;
  }
  Json command = {{"type", "record_start"},
                  {"id", client::randomTakeID()},
                  {"path", freeName(folder).string()},
                  {"resolution", wanted.resolution},
                  {"target_fps", wanted.targetFPS},
                  {"started_at", uptime}};
  if (wanted.steady) command["cadence"] = "steady";
  if (command.dump(-1, ' ', false, Json::error_handler_t::replace).size() >
      client::maximumCommandBytes) {
    problem = "The path of the folder is too long.";
    return std::nullopt;
  }
  return command;
}

std::optional<Json> Takes::stop(double uptime) const {
  if (running_.empty()) return std::nullopt;
  return Json{{"type", "record_stop"}, {"id", running_}, {"stopped_at", uptime}};
}

void Takes::eventCame(const Json& event) {
  if (event.value("type", "") != "recording") return;
  const std::string state = event.value("state", "");
  const std::string id = event.value("id", "");
  if (state == "saved") saved_[id] = event.value("path", "");
  if (state != "saved" && state != "failed") {
    running_ = id;
  } else if (id == running_) {
    running_.clear();
  }
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
