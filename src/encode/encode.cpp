// The encode pipeline of one raw frame: who needs it.

#include "app/video_encoder.h"
#include "base/out_of_memory.h"

namespace lumora {

void VideoEncoder::encode(const RawFrame& frame) {
  if (!running || (shutdownCode && !movie)) return releaseRaw();
  const auto take = recordingTake();
  const bool hasStreamConsumer = countClients() > 0;
  if (!take && !hasStreamConsumer) {
    raw.countDropped();
    return releaseRaw();
  }
  const auto completion = retryUntilAllocated([this] {
    return std::make_shared<RawEncodingCompletion>([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->releaseRaw();
    });
  });
  if (take) encodeRecording(frame, take, completion);
  if (hasStreamConsumer) encodePreview(frame, completion);
  completion->complete(0);
}

}  // namespace lumora
