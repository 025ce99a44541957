// The end of a raw frame: what waited for it can begin. State queue.

#include "app/video_encoder.h"

namespace lumora {

void VideoEncoder::releaseRaw() {
  raw.release();
  const auto current = movie ? std::optional(movie->id) : std::nullopt;
  if (recordingSession && recordingSessionMovieID != current) resetRecordingSession();
  finishMovieIfReady();
}

}  // namespace lumora
