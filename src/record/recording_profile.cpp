#include "record/recording_profile.h"

#include "base/limits.h"
#include "encode/session_settings.h"

namespace lumora {
namespace {

constexpr int frameRates[] = {15, 30, 45, 60};
constexpr RecordingProfile small = {"640x360", 640, 360, 60};
constexpr RecordingProfile mirrored = {"1080x720", mirroredRecordingWidth, mirroredRecordingHeight,
                                       60};
constexpr RecordingProfile largest = {"1920x1080", 1920, 1080, 60};

}  // namespace

RecordingProfile RecordingProfile::defaultProfile() { return mirrored; }

RecordingProfile RecordingProfile::largestProfile() { return largest; }

std::optional<RecordingProfile> RecordingProfile::parse(const Json& command) {
  const Json* resolution = findValue(command, "resolution");
  const Json* rate = findValue(command, "target_fps");
  if (resolution == nullptr && rate == nullptr) return defaultProfile();
  if (resolution == nullptr || rate == nullptr) return std::nullopt;
  for (RecordingProfile profile : {small, mirrored, largest}) {
    if (*resolution != profile.resolution) continue;
    for (const int targetFPS : frameRates) {
      profile.targetFPS = targetFPS;
      if (*rate == targetFPS) return profile;
    }
  }
  return std::nullopt;
}

EncoderSettings RecordingProfile::sessionSettings() const {
  return lumora::sessionSettings(SessionKind::recording, {width, height}, targetFPS);
}

}  // namespace lumora
