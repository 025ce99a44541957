// The recording branch of the encode pipeline. A failure here ends the take, never the process.

#include <algorithm>

#include "app/video_encoder.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "encode/pixel_buffer.h"
#include "encode/recording_keyframe.h"

namespace lumora {

void VideoEncoder::encodeRecording(const RawFrame& frame,
                                   const std::shared_ptr<MovieRecorder>& movie,
                                   const std::shared_ptr<RawEncodingCompletion>& completion) {
  const ReadFrame read{frame.id, movie->captureTime({frame.id, frame.capturedAt})};
  if (movie->startedAt && read.capturedAt < *movie->startedAt)
    return movie->countDropped(frame.id, FrameOutcome::beforeStart);
  if (!movie->cadence.admit(read.capturedAt)) return movie->countThrottled(frame.id);
  try {
    prepareRecordingSession(frame, movie);
    RecordingSession& recording = take.recording;
    auto buffer =
        pixelBuffer(frame, *recording.session, Placement::aspectFit, platform.recordingImages);
    ++recording.ordinal;
    submit(*recording.session, std::move(buffer), {recording.ordinal, movie->profile.targetFPS},
           std::exchange(recording.forceIDR, false), completion, "camera frame submission",
           weakly(&VideoEncoder::recordingEncoded, movie, read));
  } catch (const std::exception& failure) {
    take.abandon(reasonOf(failure), uptime());
  }
}

// `releaseRaw` has closed the session of any earlier take. So if there is a session, it belongs to
// `movie`.
void VideoEncoder::prepareRecordingSession(const RawFrame& frame,
                                           const std::shared_ptr<MovieRecorder>& movie) {
  RecordingSession& recording = take.recording;
  const PictureSize camera{frame.width, frame.height};
  if (!recording.session) {
    recording = {
        .session = compressionSession(movie->sessionSettings()), .movie = movie, .camera = camera};
  } else if (recording.camera != camera) {
    throw EncoderFailure::message("camera recording dimensions changed during this take");
  }
}

void VideoEncoder::recordingEncoded(const std::shared_ptr<MovieRecorder>& movie,
                                    const ReadFrame& frame, const Encoded& encoded) {
  if (!running || take.movie != movie) return;  // the take has ended
  take.recordingEncodeMilliseconds = millisecondsSince(encoded.submitted);
  try {
    if (encoded.status == 0 && (encoded.infoFlags & infoFrameDropped) != 0) {
      movie->countDropped(frame.id, FrameOutcome::encoder);
      take.recording.forceIDR = true;
      return;
    }
    encoded.require("camera encoding");
    const bool keyframe = recordingKeyframe(*encoded.sample);
    ++take.recordingEncodedFrames;
    if (!movie->append(encoded.sample, frame, keyframe)) {
      take.recording.forceIDR = true;
    }
    take.maximumMovieWorkObserved =
        std::max<std::int64_t>(take.maximumMovieWorkObserved, movie->pendingWork());
  } catch (const std::exception& failure) {
    take.abandon(reasonOf(failure), uptime());
  }
}

}  // namespace lumora
