// Decides which branches encode a raw frame.

#include "app/video_encoder.h"

namespace lumora {

void VideoEncoder::encode(const RawFrame& frame) {
  if (!running || (shutdownCode && !take.movie)) return releaseRaw();
  const auto movie = take.recordingTake();
  // A frame without pixels counts as undecodable only while a take records. Otherwise the reader
  // may not have tried to decode it.
  const bool isUndecodable = movie && !frame.rgba;
  take.logFrame({frame.id, frame.capturedAt},
                isUndecodable ? std::optional(FrameOutcome::undecodable) : std::nullopt);
  const bool isWatched = preview.countAuthenticatedPeers() > 0;
  const bool isNeeded = movie || isWatched;
  raw.setNeeded(isNeeded);
  if (!isNeeded || !frame.rgba) {
    raw.countDropped();
    return releaseRaw();
  }
  const auto completion =
      std::make_shared<RawEncodingCompletion>(weakly(&VideoEncoder::releaseRaw));
  // For the take first: its session's worker scales this frame while this queue scales it for the
  // preview.
  if (movie) encodeRecording(frame, movie, completion);
  if (isWatched) encodePreview(frame, completion);
  completion->complete(0);
}

}  // namespace lumora
