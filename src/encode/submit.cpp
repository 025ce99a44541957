// The way of one buffer into a session and of its outcome back, for both branches.

#include <utility>

#include "app/video_encoder.h"
#include "encode/encoder_failure.h"

namespace lumora {

void VideoEncoder::Encoded::require(const char* what) const {
  if ((infoFlags & infoNotPrepared) != 0)
    throw EncoderFailure::status("encoder preparation", status);
  if (status != 0 || !sample) throw EncoderFailure::status(what, status);
}

// `handle` runs with the outcome on the state queue, then the frame's share of `completion` ends.
// The session's handler only enqueues: a session reset waits for it on the state queue.
Status VideoEncoder::submit(CompressionSession& to, std::shared_ptr<PixelBuffer> buffer,
                            RationalTime time, FrameProperties properties,
                            const std::shared_ptr<RawEncodingCompletion>& completion,
                            OutcomeHandler handle) {
  const int share = completion->begin();
  const double submitted = uptime();
  const auto answer = [weak = weak_from_this(), queue = platform.stateQueue, completion, share,
                       submitted, handle = std::move(handle)](
                          Status outcome, std::uint32_t infoFlags,
                          const std::shared_ptr<const EncodedSample>& sample) {
    queue->async([weak, completion, share, handle,
                  encoded = Encoded{outcome, infoFlags, sample, submitted}] {
      if (const auto self = weak.lock()) handle(*self, encoded);
      completion->complete(share);
    });
  };
  try {
    const Status status = to.encodeFrame(std::move(buffer), time, properties, answer);
    if (status != 0) completion->complete(share);
    return status;
  } catch (const std::exception&) {
    completion->complete(share);
    throw;
  }
}

}  // namespace lumora
