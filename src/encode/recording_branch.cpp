// The recording branch of the encode pipeline. A failure here costs the take, never the process.

#include <algorithm>
#include <utility>

#include "app/video_encoder.h"
#include "base/out_of_memory.h"
#include "base/reason.h"
#include "encode/encoder_failure.h"
#include "encode/pixel_buffer.h"
#include "encode/recording_keyframe.h"

namespace lumora {

void VideoEncoder::encodeRecording(const RawFrame& frame,
                                   const std::shared_ptr<MovieRecorder>& take,
                                   const std::shared_ptr<RawEncodingCompletion>& completion) {
  if (take->startedAt && frame.capturedAt < *take->startedAt) return take->countDropped();
  if (!take->cadence.admit(frame.capturedAt)) return take->countThrottled();
  try {
    prepareRecordingSession(frame, *take);
    submitRecording(frame, take, completion);
  } catch (const std::exception& failure) {
    retryUntilAllocated([&] { failRecording(reasonOf(failure), take); });
  }
}

void VideoEncoder::prepareRecordingSession(const RawFrame& frame, const MovieRecorder& take) {
  if (recordingSession && recordingSessionTake != takesStarted) resetRecordingSession();
  if (recordingSession) {
    if (frame.width == recordingSourceWidth && frame.height == recordingSourceHeight) return;
    throw EncoderFailure::message("camera recording dimensions changed during this take");
  }
  const RecordingProfile& profile = take.profile;
  recordingSession =
      compressionSession(profile.width, profile.height, /*recording=*/true, profile.targetFPS);
  recordingSessionTake = takesStarted;
  recordingWidth = profile.width;
  recordingHeight = profile.height;
  recordingSourceWidth = frame.width;
  recordingSourceHeight = frame.height;
  recordingOrdinal = 0;
  recordingForceIDR = true;
}

void VideoEncoder::submitRecording(const RawFrame& frame,
                                   const std::shared_ptr<MovieRecorder>& take,
                                   const std::shared_ptr<RawEncodingCompletion>& completion) {
  auto buffer = pixelBuffer(frame, *recordingSession, Placement::aspectFit, *platform.images);
  ++recordingOrdinal;
  const FrameProperties properties{.forceKeyFrame = std::exchange(recordingForceIDR, false)};
  const Status status =
      submit(*recordingSession, std::move(buffer), {recordingOrdinal, take->profile.targetFPS},
             properties, completion,
             [take, capturedAt = frame.capturedAt](VideoEncoder& self, const Encoded& encoded) {
               self.recordingEncoded(encoded, take, capturedAt);
             });
  if (status != 0) throw EncoderFailure::status("camera frame submission", status);
}

void VideoEncoder::recordingEncoded(const Encoded& encoded,
                                    const std::shared_ptr<MovieRecorder>& take, double capturedAt) {
  if (!running || movie != take) return;
  recordingEncodeMilliseconds = millisecondsSince(encoded.submitted);
  try {
    const bool dropped = encoded.status == 0 && (encoded.infoFlags & infoFrameDropped) != 0;
    if (dropped) {
      take->countDropped();
      recordingForceIDR = true;
      return;
    }
    encoded.require("camera encoding");
    const bool keyframe = recordingKeyframe(*encoded.sample);
    ++recordingEncodedFrames;
    if (!take->append(encoded.sample, capturedAt, keyframe)) recordingForceIDR = true;
    maximumMovieWorkObserved =
        std::max<std::int64_t>(maximumMovieWorkObserved, take->pendingWork());
  } catch (const std::exception& failure) {
    retryUntilAllocated([&] { failRecording(reasonOf(failure), take); });
  }
}

// A late failure of a take that is no longer the current one is ignored.
void VideoEncoder::failRecording(const std::string& message,
                                 const std::shared_ptr<MovieRecorder>& take) {
  if (movie != take) return;
  abandonedFor = message;
  ++recordingEncoderFailures;
  movie.reset();
  pendingMovieStop.reset();
  take->abort(message);
}

}  // namespace lumora
