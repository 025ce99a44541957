#pragma once

// The take that the parent asked for last, and the session that encodes it. State queue only.

#include "encode/picture_size.h"
#include "record/movie_recorder.h"

namespace lumora {

// The session of one take and one camera size. While a frame is in flight, the session may outlive
// its take.
struct RecordingSession {
  std::shared_ptr<CompressionSession> session;
  std::shared_ptr<MovieRecorder> movie;  // the take that it was made for
  PictureSize camera;
  bool forceIDR = true;      // the next frame is encoded as a key frame
  std::int64_t ordinal = 0;  // frames submitted
};

struct CurrentTake {
  std::shared_ptr<MovieRecorder> movie;  // null: no take
  bool movieFinishing = false;
  std::optional<double> pendingMovieStop;  // uptime at which the take is to stop
  std::optional<TakeEvent> movieStatus;    // the last "recording" event of the latest take
  // The take that `abandon` has ended, until its "failed" event is emitted.
  std::shared_ptr<MovieRecorder> abandoned;
  std::string abandonedFor;  // the reason
  double abandonedAt = 0;    // the uptime
  RecordingSession recording;

  // Figures over all takes.
  std::uint64_t recordingEncodedFrames = 0;
  double recordingEncodeMilliseconds = 0;  // of the latest frame
  std::uint64_t recordingEncoderFailures = 0;
  std::int64_t maximumMovieWorkObserved = 0;

  bool isStopping() const { return pendingMovieStop || movieFinishing; }
  // The take that gets new frames. Null once its stop is pending, or it has failed.
  std::shared_ptr<MovieRecorder> recordingTake() const {
    return movie && movie->accepts() && !isStopping() ? movie : nullptr;
  }
  // Whether an abandoned take may still be completing its file.
  bool isRescuing() const { return abandoned && abandoned->options.keepsFailed; }
  bool hasSessionOfAnotherTake() const { return recording.session && recording.movie != movie; }
  // Waits until the session has encoded its frames, then closes it.
  void resetRecordingSession();
  // Logs a frame that was read, and what became of it if that is known.
  void logFrame(const ReadFrame& frame, std::optional<FrameOutcome> outcome) const;
  // Ends the take as failed. `now` is the uptime.
  void abandon(const std::string& reason, double now);
};

}  // namespace lumora
