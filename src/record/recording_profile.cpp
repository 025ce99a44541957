#include "record/recording_profile.h"

namespace lumora {

std::optional<RecordingProfile> RecordingProfile::parse(const Json& command) {
  const Json* resolution = findValue(command, "resolution");
  const Json* rate = findValue(command, "target_fps");
  if (resolution == nullptr && rate == nullptr) return defaultProfile;
  if (resolution == nullptr || rate == nullptr) return std::nullopt;
  constexpr RecordingProfile smallProfile{"640x360", 640, 360, 60};
  for (RecordingProfile profile : {smallProfile, defaultProfile, largestProfile}) {
    if (*resolution != profile.resolution) continue;
    for (const int targetFPS : {15, 30, 45, 60}) {
      profile.targetFPS = targetFPS;
      if (*rate == targetFPS) return profile;
    }
  }
  return std::nullopt;
}

EncoderSettings RecordingProfile::sessionSettings(std::int64_t bitRate) const {
  auto settings = lumora::sessionSettings(SessionKind::recording, {width, height}, targetFPS);
  settings.bitRate = bitRate;
  return settings;
}

}  // namespace lumora
