#pragma once

#include <optional>
#include <string>

#include "base/json.h"
#include "platform/encoder_settings.h"

namespace lumora {

// What a take looks like.
struct RecordingProfile {
  std::string resolution;  // its name
  int width;               // pixels
  int height;              // pixels
  int targetFPS;           // frames per second

  // "1080x720" at 60: 1080 wide, not 1280.
  static RecordingProfile defaultProfile();

  // "1920x1080" at 60.
  static RecordingProfile largestProfile();

  // The profile that "resolution" and "target_fps" of a command name, the default one when it has
  // neither; nothing when they are invalid.
  static std::optional<RecordingProfile> parse(const Json& command);

  // Of the session that encodes it.
  EncoderSettings sessionSettings() const;
};

}  // namespace lumora
