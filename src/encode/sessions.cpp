// The factory of both compression sessions and the reset of the recording one.

#include <array>
#include <utility>

#include "app/video_encoder.h"
#include "encode/encoder_failure.h"
#include "encode/session_settings.h"

namespace lumora {
namespace {

constexpr double maximumKeyFrameSeconds = 1.0;

using Property = std::pair<SessionProperty, PropertyValue>;

std::array<Property, 7> sessionProperties(const EncoderSettings& settings) {
  return {{
      {SessionProperty::realTime, true},
      {SessionProperty::allowFrameReordering, false},
      {SessionProperty::profileLevel, settings.profile},
      {SessionProperty::expectedFrameRate, settings.frameRate},
      {SessionProperty::maxKeyFrameInterval, settings.keyFrameInterval},
      {SessionProperty::maxKeyFrameIntervalDuration, maximumKeyFrameSeconds},
      {SessionProperty::averageBitRate, settings.bitRate},
  }};
}

void configure(CompressionSession& session, const EncoderSettings& settings) {
  for (const auto& [property, value] : sessionProperties(settings)) {
    const Status status = session.setProperty(property, value);
    if (status != 0) throw EncoderFailure::status("encoder property", status);
  }
  const Status status = session.prepareToEncodeFrames();
  if (status != 0) throw EncoderFailure::status("encoder preparation", status);
}

}  // namespace

std::shared_ptr<CompressionSession> VideoEncoder::compressionSession(std::int64_t sessionWidth,
                                                                     std::int64_t sessionHeight,
                                                                     bool recording,
                                                                     int targetFPS) {
  const EncoderSettings settings =
      sessionSettings(recording ? SessionKind::recording : SessionKind::preview,
                      {sessionWidth, sessionHeight}, targetFPS);
  std::shared_ptr<CompressionSession> made;
  const Status status = platform.encoders->createSession(
      settings.kind, settings.width, settings.height,
      {.requireHardwareAccelerated = true, .enableLowLatencyRateControl = true}, made);
  if (status != 0 || !made) {
    throw EncoderFailure::status("hardware encoder creation", status);
  }
  try {
    configure(*made, settings);
  } catch (const EncoderFailure&) {
    made->invalidate();
    throw;
  }
  return made;
}

}  // namespace lumora
