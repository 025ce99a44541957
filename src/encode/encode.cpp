// The encode pipeline of one raw frame: who needs it, and the preview branch.

#include <utility>

#include "app/video_encoder.h"
#include "encode/encoder_failure.h"
#include "encode/picture_size.h"
#include "encode/pixel_buffer.h"
#include "encode/session_settings.h"

namespace lumora {

void VideoEncoder::encode(const RawFrame& frame) {
  if (!running || (shutdownCode && !movie)) return releaseRaw();
  const auto take = recordingTake();
  const bool hasStreamConsumer = countClients() > 0;
  if (!take && !hasStreamConsumer) {
    raw.countDropped();
    return releaseRaw();
  }
  const auto completion = std::make_shared<RawEncodingCompletion>([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->releaseRaw();
  });
  if (take) encodeRecording(frame, take, completion);
  if (hasStreamConsumer) encodePreview(frame, completion);
  completion->complete(0);
}

void VideoEncoder::encodePreview(const RawFrame& frame,
                                 const std::shared_ptr<RawEncodingCompletion>& completion) {
  try {
    preparePreviewSession(frame);
    auto buffer = pixelBuffer(frame, *session, Placement::stretch, *platform.images);
    ++ordinal;
    const double submitted = uptime();
    const FrameProperties properties{.forceKeyFrame = std::exchange(forceIDR, false)};
    const Status status =
        submit(*session, std::move(buffer), {ordinal, previewTargetFPS}, properties, completion,
               [submitted, id = frame.id](VideoEncoder& self, const Encoded& encoded) {
                 self.previewEncoded(encoded, submitted, id);
               });
    if (status != 0) throw EncoderFailure::status("frame submission", status);
  } catch (const EncoderFailure& failure) {
    fail(failure.description());
  }
}

void VideoEncoder::preparePreviewSession(const RawFrame& frame) {
  const PictureSize size = previewEncodeSize({frame.width, frame.height},
                                             {previewWidth, previewHeight}, exactPreviewDimensions);
  if (session && size == PictureSize{width, height}) return;
  if (session) session->invalidate();
  session.reset();
  width = size.width;
  height = size.height;
  session = compressionSession(width, height, /*recording=*/false, previewTargetFPS);
  forceIDR = true;
  for (const auto& [id, peer] : peers) peer->awaitingIDR = true;
}

void VideoEncoder::previewEncoded(const Encoded& encoded, double submitted, std::uint64_t id) {
  if (!running) return;
  encodeMilliseconds = (uptime() - submitted) * 1000.0;
  try {
    if (encoded.status != 0 || !encoded.sample) {
      throw EncoderFailure::status("frame encoding", encoded.status);
    }
    deliver(*encoded.sample, id);
  } catch (const EncoderFailure& failure) {
    fail(failure.description());
  }
}

}  // namespace lumora
