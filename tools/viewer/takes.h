#pragma once

// The takes that a page asks for: their commands, and the movies that have come of them. Pure, but
// for a look at the file system.

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/viewer/page_messages.h"

namespace lumora::viewer {

class Takes {
 public:
  // The command that starts the take, or `problem` in words.
  std::optional<nlohmann::json> start(const StartTake& wanted, double uptime, std::string& problem);
  // The command that stops the take that is running; nothing when there is none.
  std::optional<nlohmann::json> stop(double uptime) const;
  // For each event of the helper.
  void eventCame(const nlohmann::json& event);
  bool isRunning() const { return !running_.empty(); }
  // The movie named "<id>.mp4" that was saved in this run.
  std::optional<std::filesystem::path> movie(const std::string& name) const;

 private:
  std::string running_;  // id of the take that was accepted and has not ended
  std::map<std::string, std::filesystem::path> saved_;
};

}  // namespace lumora::viewer
