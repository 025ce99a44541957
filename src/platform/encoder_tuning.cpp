#include "platform/encoder_tuning.h"

#include <algorithm>

namespace lumora {
namespace {

// From this size on one frame takes long enough for a second slice thread to pay.
constexpr int pixelsPerSliceThread = 640 * 480;
constexpr int maximumSliceThreads = 2;

CodecOptions x264Options(const EncoderSettings& settings) {
  return {{"preset", "superfast"},
          {"tune", "zerolatency"},
          {"profile", settings.profile == ProfileLevel::highAuto ? "high" : "baseline"},
          {"forced-idr", "1"},
          // Key frames come on request and by interval; one more at a cut would only add a peak.
          {"sc_threshold", "0"}};
}

}  // namespace

CodecOptions lowLatencyOptions(const std::string& codec, const EncoderSettings& settings) {
  const bool high = settings.profile == ProfileLevel::highAuto;
  const std::string profile = high ? "high" : "baseline";
  const std::string constrained = high ? "high" : "constrained_baseline";
  if (codec == "libx264") return x264Options(settings);
  if (codec == "h264_videotoolbox") {
    return {{"profile", profile}, {"realtime", "1"}, {"allow_sw", "0"}};
  }
  if (codec == "h264_nvenc") {
    return {{"profile", profile}, {"preset", "p3"}, {"tune", "ull"},
            {"zerolatency", "1"}, {"delay", "0"},   {"forced-idr", "1"}};
  }
  if (codec == "h264_qsv") {
    return {{"profile", profile}, {"async_depth", "1"}, {"forced_idr", "1"}};
  }
  if (codec == "h264_vaapi") return {{"profile", constrained}};
  return {};
}

int sliceThreads(const EncoderSettings& settings, unsigned cores) {
  const int wanted = settings.width * settings.height / pixelsPerSliceThread;
  return std::clamp(std::min(wanted, static_cast<int>(cores)), 1, maximumSliceThreads);
}

}  // namespace lumora
