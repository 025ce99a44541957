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

std::array<Property, 7> sessionProperties(bool recording, int targetFPS) {
  const std::int64_t rate = targetFPS;
  return {{
      {SessionProperty::realTime, true},
      {SessionProperty::allowFrameReordering, false},
      {SessionProperty::profileLevel,
       recording ? ProfileLevel::highAuto : ProfileLevel::baselineAuto},
      {SessionProperty::expectedFrameRate, rate},
      {SessionProperty::maxKeyFrameInterval, rate},
      {SessionProperty::maxKeyFrameIntervalDuration, maximumKeyFrameSeconds},
      {SessionProperty::averageBitRate, recording ? recordingBitRate : previewBitRate},
  }};
}

void configure(CompressionSession& session, bool recording, int targetFPS) {
  for (const auto& [property, value] : sessionProperties(recording, targetFPS)) {
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
  std::shared_ptr<CompressionSession> made;
  const Status status = platform.encoders->createSession(
      static_cast<std::int32_t>(sessionWidth), static_cast<std::int32_t>(sessionHeight),
      {.requireHardwareAccelerated = true, .enableLowLatencyRateControl = true}, made);
  if (status != 0 || !made) {
    throw EncoderFailure::status("hardware encoder creation", status);
  }
  try {
    configure(*made, recording, targetFPS);
  } catch (const EncoderFailure&) {
    made->invalidate();
    throw;
  }
  return made;
}

std::vector<EncoderSettings> expectedSessions(std::int64_t previewWidth,
                                              std::int64_t previewHeight) {
  const RecordingProfile take = RecordingProfile::defaultProfile();
  return {{.width = static_cast<int>(previewWidth),
           .height = static_cast<int>(previewHeight),
           .profile = ProfileLevel::baselineAuto,
           .frameRate = previewTargetFPS,
           .keyFrameInterval = previewTargetFPS,
           .bitRate = previewBitRate},
          {.width = take.width,
           .height = take.height,
           .profile = ProfileLevel::highAuto,
           .frameRate = take.targetFPS,
           .keyFrameInterval = take.targetFPS,
           .bitRate = recordingBitRate}};
}

void VideoEncoder::resetRecordingSession() {
  if (recordingSession) {
    recordingSession->completeFrames();
    recordingSession->invalidate();
  }
  recordingSession.reset();
  recordingSessionMovieID.reset();
  recordingOrdinal = 0;
  recordingWidth = 0;
  recordingHeight = 0;
  recordingSourceWidth = 0;
  recordingSourceHeight = 0;
  recordingForceIDR = true;
}

}  // namespace lumora
