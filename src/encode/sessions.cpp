// Makes the compression sessions of both branches, and submits frames to them.

#include "app/video_encoder.h"
#include "encode/encoder_failure.h"

namespace lumora {
namespace {

constexpr double maximumKeyFrameSeconds = 1.0;

void configure(CompressionSession& session, const EncoderSettings& settings) {
  const std::pair<SessionProperty, PropertyValue> properties[] = {
      {SessionProperty::realTime, true},
      {SessionProperty::allowFrameReordering, false},
      {SessionProperty::profileLevel, settings.profile},
      {SessionProperty::expectedFrameRate, settings.frameRate},
      {SessionProperty::maxKeyFrameInterval, settings.keyFrameInterval},
      {SessionProperty::maxKeyFrameIntervalDuration, maximumKeyFrameSeconds},
      {SessionProperty::averageBitRate, settings.bitRate},
  };
  for (const auto& [property, value] : properties) {
    const Status status = session.setProperty(property, value);
    if (status != 0) throw EncoderFailure::status("encoder property", status);
  }
  const Status status = session.prepareToEncodeFrames();
  if (status != 0) throw EncoderFailure::status("encoder preparation", status);
}

}  // namespace

std::shared_ptr<CompressionSession> VideoEncoder::compressionSession(
    const EncoderSettings& settings) {
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

void VideoEncoder::Encoded::require(const char* what) const {
  if ((infoFlags & infoNotPrepared) != 0)
    throw EncoderFailure::status("encoder preparation", status);
  if (status == fillingFailed) throw EncoderFailure::conversion();
  if (status != 0 || !sample) throw EncoderFailure::status(what, status);
}

// The session's worker calls `answer`, which only enqueues work on the state queue. `answer` must
// not wait for this queue: in `completeFrames` the queue waits until `answer` has returned.
void VideoEncoder::submit(CompressionSession& to, std::shared_ptr<PixelBuffer> buffer,
                          RationalTime time, bool forceKeyFrame,
                          const std::shared_ptr<RawEncodingCompletion>& completion,
                          const char* what, OutcomeHandler handle) {
  const int share = completion->begin();
  const auto answer = [queue = platform.stateQueue, completion, share, submitted = uptime(),
                       handle = std::move(handle)](
                          Status outcome, std::uint32_t infoFlags,
                          const std::shared_ptr<const EncodedSample>& sample) {
    queue->async(
        [completion, share, handle, encoded = Encoded{outcome, infoFlags, sample, submitted}] {
          handle(encoded);
          completion->complete(share);
        });
  };
  try {
    const Status status = to.encodeFrame(std::move(buffer), time, {forceKeyFrame}, answer);
    if (status != 0) throw EncoderFailure::status(what, status);
  } catch (const std::exception&) {
    completion->complete(share);
    throw;
  }
}

}  // namespace lumora
