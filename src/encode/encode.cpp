// Decides which branches encode a raw frame.

#include "app/video_encoder.h"

namespace lumora {

void VideoEncoder::encode(const RawFrame& frame) {
  if (!running || (shutdownCode && !take.movie)) return releaseRaw();
  const auto undecodable = frame.rgba ? std::nullopt : std::optional(FrameOutcome::undecodable);
  take.logFrame({frame.id, frame.capturedAt}, undecodable);
  const auto movie = take.recordingTake();
  const bool isWatched = preview.countAuthenticatedPeers() > 0;
  const bool isNeeded = movie || isWatched;
  raw.setNeeded(isNeeded);
  if (!isNeeded || !frame.rgba) {
    raw.countDropped();
    return releaseRaw();
  }
  const auto completion =
      std::make_shared<RawEncodingCompletion>(weakly(&VideoEncoder::releaseRaw));
  if (movie) encodeRecording(frame, movie, completion);
  if (isWatched) encodePreview(frame, completion);
  completion->complete(0);
}

}  // namespace lumora
