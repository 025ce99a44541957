#pragma once

// Where the takes that a page asks for go, and the movies that have come of them. Pure, but for a
// look at the file system.

#include <lumora/take.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/viewer/page_messages.h"

namespace lumora::viewer {

class Takes {
 public:
  // What to ask of the helper, or `problem` in words.
  std::optional<client::TakeOptions> plan(const StartTake& wanted, double uptime,
                                          std::string& problem) const;
  // For each event of the helper.
  void eventCame(const nlohmann::json& event);
  // The movie named "<id>.mp4" that was saved in this run.
  std::optional<std::filesystem::path> movie(const std::string& name) const;

 private:
  std::map<std::string, std::filesystem::path> saved_;
};

}  // namespace lumora::viewer
