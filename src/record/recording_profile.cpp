#include "record/recording_profile.h"

#include "base/limits.h"
#include "encode/session_settings.h"

namespace lumora {
namespace {

struct Resolution {
  const char* name;
  int width;
  int height;
};
constexpr Resolution mirrored = {"1080x720", mirroredRecordingWidth, mirroredRecordingHeight};
constexpr Resolution largest = {"1920x1080", 1920, 1080};
constexpr Resolution resolutions[] = {{"640x360", 640, 360}, mirrored, largest};
constexpr int defaultFrameRate = 60;
constexpr int frameRates[] = {15, 30, 45, 60};

std::optional<int> parseFrameRate(const Json& value) {
  if (!value.is_number()) return std::nullopt;
  const double number = value.get<double>();
  for (const int rate : frameRates) {
    if (number == rate) return rate;
  }
  return std::nullopt;
}

}  // namespace

RecordingProfile RecordingProfile::defaultProfile() {
  return {mirrored.name, mirrored.width, mirrored.height, defaultFrameRate};
}

RecordingProfile RecordingProfile::largestProfile() {
  return {largest.name, largest.width, largest.height, defaultFrameRate};
}

EncoderSettings RecordingProfile::sessionSettings() const {
  return lumora::sessionSettings(SessionKind::recording, {width, height}, targetFPS);
}

std::optional<RecordingProfile> RecordingProfile::parse(const Json& command) {
  const Json* resolution = findValue(command, "resolution");
  const Json* rate = findValue(command, "target_fps");
  if (resolution == nullptr && rate == nullptr) return defaultProfile();
  if (resolution == nullptr || rate == nullptr || !resolution->is_string()) return std::nullopt;
  const auto targetFPS = parseFrameRate(*rate);
  if (!targetFPS) return std::nullopt;
  for (const Resolution& known : resolutions) {
    if (*resolution == known.name) {
      return RecordingProfile{known.name, known.width, known.height, *targetFPS};
    }
  }
  return std::nullopt;
}

}  // namespace lumora
