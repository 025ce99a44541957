// The recording branch of the encode pipeline. A failure here costs the take, never the process.

#include <algorithm>
#include <utility>

#include "app/video_encoder.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "encode/pixel_buffer.h"
#include "encode/recording_keyframe.h"

namespace lumora {

void VideoEncoder::encodeRecording(const RawFrame& frame,
                                   const std::shared_ptr<MovieRecorder>& movie,
                                   const std::shared_ptr<RawEncodingCompletion>& completion) {
  if (movie->startedAt && frame.capturedAt < *movie->startedAt) return movie->countDropped();
  if (!movie->cadence.admit(frame.capturedAt)) return movie->countThrottled();
  try {
    prepareRecordingSession(frame, movie);
    submitRecording(frame, movie, completion);
  } catch (const std::exception& failure) {
    take.abandon(movie, reasonOf(failure));
  }
}

// A session of an earlier take went with that take's last frame.
void VideoEncoder::prepareRecordingSession(const RawFrame& frame,
                                           const std::shared_ptr<MovieRecorder>& movie) {
  RecordingSession& recording = take.recording;
  if (recording.recordingSession) {
    if (frame.width == recording.recordingSourceWidth &&
        frame.height == recording.recordingSourceHeight) {
      return;
    }
    throw EncoderFailure::message("camera recording dimensions changed during this take");
  }
  const RecordingProfile& profile = movie->profile;
  recording = {.recordingSession = compressionSession(profile.width, profile.height,
                                                      /*recording=*/true, profile.targetFPS),
               .recordingSessionMovie = movie,
               .recordingWidth = profile.width,
               .recordingHeight = profile.height,
               .recordingSourceWidth = frame.width,
               .recordingSourceHeight = frame.height};
}

void VideoEncoder::submitRecording(const RawFrame& frame,
                                   const std::shared_ptr<MovieRecorder>& movie,
                                   const std::shared_ptr<RawEncodingCompletion>& completion) {
  RecordingSession& recording = take.recording;
  CompressionSession& session = *recording.recordingSession;
  auto buffer = pixelBuffer(frame, session, Placement::aspectFit, *platform.images);
  ++recording.recordingOrdinal;
  const FrameProperties properties{.forceKeyFrame =
                                       std::exchange(recording.recordingForceIDR, false)};
  const Status status =
      submit(session, std::move(buffer), {recording.recordingOrdinal, movie->profile.targetFPS},
             properties, completion,
             [movie, capturedAt = frame.capturedAt](VideoEncoder& self, const Encoded& encoded) {
               self.recordingEncoded(encoded, movie, capturedAt);
             });
  if (status != 0) throw EncoderFailure::status("camera frame submission", status);
}

// Frames of a take that has ended are ignored.
void VideoEncoder::recordingEncoded(const Encoded& encoded,
                                    const std::shared_ptr<MovieRecorder>& movie,
                                    double capturedAt) {
  if (!running || take.movie != movie) return;
  take.recordingEncodeMilliseconds = millisecondsSince(encoded.submitted);
  try {
    const bool dropped = encoded.status == 0 && (encoded.infoFlags & infoFrameDropped) != 0;
    if (dropped) {
      movie->countDropped();
      take.recording.recordingForceIDR = true;
      return;
    }
    encoded.require("camera encoding");
    const bool keyframe = recordingKeyframe(*encoded.sample);
    ++take.recordingEncodedFrames;
    if (!movie->append(encoded.sample, capturedAt, keyframe)) {
      take.recording.recordingForceIDR = true;
    }
    take.maximumMovieWorkObserved =
        std::max<std::int64_t>(take.maximumMovieWorkObserved, movie->pendingWork());
  } catch (const std::exception& failure) {
    take.abandon(movie, reasonOf(failure));
  }
}

}  // namespace lumora
