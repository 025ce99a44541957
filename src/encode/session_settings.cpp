#include "encode/session_settings.h"

namespace lumora {
namespace {

constexpr std::int64_t previewBitRate = 4'000'000;     // bits per second
constexpr std::int64_t recordingBitRate = 12'000'000;  // bits per second

}  // namespace

EncoderSettings sessionSettings(SessionKind kind, PictureSize size, int targetFPS) {
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
