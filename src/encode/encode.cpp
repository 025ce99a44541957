// The encode pipeline of one raw frame: who needs it.

#include "app/video_encoder.h"

namespace lumora {

void VideoEncoder::encode(const RawFrame& frame) {
  if (!running || (shutdownCode && !take.movie)) return releaseRaw();
  const auto movie = take.recordingTake();
  const bool hasStreamConsumer = preview.countClients() > 0;
  if (!movie && !hasStreamConsumer) {
    raw.countDropped();
    return releaseRaw();
  }
  const auto completion =
      std::make_shared<RawEncodingCompletion>(weakly(&VideoEncoder::releaseRaw));
  if (movie) encodeRecording(frame, movie, completion);
  if (hasStreamConsumer) encodePreview(frame, completion);
  completion->complete(0);
}

}  // namespace lumora
