#pragma once

#include "base/json.h"
#include "encode/session_settings.h"

namespace lumora {

// The picture size and frame rate of a take.
struct RecordingProfile {
  const char* resolution;  // the picture size as commands name it
  int width;               // pixels
  int height;              // pixels
  int targetFPS;           // frames per second

  // The profile that a command asks for with "resolution" and "target_fps". With neither key it is
  // the default one. Empty if only one key is present, or a value is invalid.
  static std::optional<RecordingProfile> parse(const Json& command);

  // The settings of the session that encodes a take at this bit rate.
  EncoderSettings sessionSettings(std::int64_t bitRate = recordingBitRate) const;
};

constexpr RecordingProfile defaultProfile{"1080x720", 1080, 720, 60};  // 1080 wide, not 1280
constexpr RecordingProfile largestProfile{"1920x1080", 1920, 1080, 60};

}  // namespace lumora
