#pragma once

#include <optional>
#include <string>

#include "base/json.h"

namespace lumora {

// What a take looks like.
struct RecordingProfile {
  std::string resolution = "1080x720";  // its name; 1080 wide, not 1280
  int width = 1080;                     // pixels
  int height = 720;                     // pixels
  int targetFPS = 60;                   // frames per second

  // The profile that "resolution" and "target_fps" of a command name, the default one when it has
  // neither; nothing when they are invalid.
  static std::optional<RecordingProfile> parse(const Json& command);
};

}  // namespace lumora
