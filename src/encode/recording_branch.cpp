// The recording branch of the encode pipeline. A failure here ends the take, never the process.

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
    RecordingSession& recording = take.recording;
    auto buffer =
        pixelBuffer(frame, *recording.recordingSession, Placement::aspectFit, *platform.images);
    ++recording.recordingOrdinal;
    submit(*recording.recordingSession, std::move(buffer),
           {recording.recordingOrdinal, movie->profile.targetFPS},
           std::exchange(recording.recordingForceIDR, false), completion, "camera frame submission",
           weakly(&VideoEncoder::recordingEncoded, movie, frame.capturedAt));
  } catch (const std::exception& failure) {
    take.abandon(movie, reasonOf(failure));
  }
}

// An existing session always belongs to `movie`: `releaseRaw` has reset that of an earlier take.
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
  recording = {.recordingSession = compressionSession(profile.sessionSettings()),
               .recordingSessionMovie = movie,
               .recordingWidth = profile.width,
               .recordingHeight = profile.height,
               .recordingSourceWidth = frame.width,
               .recordingSourceHeight = frame.height};
}

void VideoEncoder::recordingEncoded(const std::shared_ptr<MovieRecorder>& movie, double capturedAt,
                                    const Encoded& encoded) {
  if (!running || take.movie != movie) return;  // the take has ended
  take.recordingEncodeMilliseconds = millisecondsSince(encoded.submitted);
  try {
    if (encoded.status == 0 && (encoded.infoFlags & infoFrameDropped) != 0) {
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
