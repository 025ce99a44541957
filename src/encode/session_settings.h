#pragma once

#include "encode/picture_size.h"
#include "platform/encoder_settings.h"

namespace lumora {

constexpr int previewTargetFPS = 60;
constexpr std::int64_t previewBitRate = 4'000'000;     // bits per second
constexpr std::int64_t recordingBitRate = 12'000'000;  // bits per second

// The settings of a session, or of an encoder that is opened ahead. A session gets an encoder that
// was opened ahead only if the two have equal settings.
inline EncoderSettings sessionSettings(SessionKind kind, PictureSize size, int targetFPS) {
  const bool recording = kind == SessionKind::recording;
  return {.kind = kind,
          .width = static_cast<int>(size.width),
          .height = static_cast<int>(size.height),
          .profile = recording ? ProfileLevel::highAuto : ProfileLevel::baselineAuto,
          .frameRate = targetFPS,
          .keyFrameInterval = targetFPS,
          .bitRate = recording ? recordingBitRate : previewBitRate};
}

}  // namespace lumora
