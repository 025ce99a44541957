// The encode pipeline of one raw frame: who needs it, and the preview branch.

#include <algorithm>

#include "app/video_encoder.h"
#include "encode/encoder_failure.h"
#include "encode/picture_size.h"
#include "encode/pixel_buffer.h"

namespace lumora {
namespace {

constexpr int previewTargetFPS = 60;

}  // namespace

void VideoEncoder::encode(const RawFrame& frame) {
  if (!running || shutdownCode) return releaseRaw();
  const bool hasStreamConsumer = countPeers(/*authenticated=*/true) > 0;
  if (!hasStreamConsumer) {
    countDroppedRaw();
    return releaseRaw();
  }
  const auto completion = std::make_shared<RawEncodingCompletion>([weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->releaseRaw();
  });
  if (hasStreamConsumer) {
    try {
      encodePreview(frame, completion);
    } catch (const EncoderFailure& failure) {
      fail(failure.description());
    }
  }
  completion->complete(0);
}

void VideoEncoder::encodePreview(const RawFrame& frame,
                                 const std::shared_ptr<RawEncodingCompletion>& completion) {
  preparePreviewSession(frame);
  auto buffer = pixelBuffer(frame, *session, Placement::stretch, *platform.images);
  ++ordinal;
  const double submitted = uptime();
  const FrameProperties properties{.forceKeyFrame = std::exchange(forceIDR, false)};
  const int encode = completion->begin();
  const Status status = session->encodeFrame(
      std::move(buffer), {ordinal, previewTargetFPS}, properties,
      [weak = weak_from_this(), queue = platform.stateQueue, completion, encode, submitted,
       id = frame.id](Status outcome, std::uint32_t, std::shared_ptr<const EncodedSample> sample) {
        queue->async(
            [weak, completion, encode, submitted, id, outcome, sample = std::move(sample)] {
              const auto self = weak.lock();
              if (!self) return;
              self->previewEncoded(outcome, sample.get(), submitted, id);
              completion->complete(encode);
            });
      });
  if (status != 0) {
    completion->complete(encode);
    throw EncoderFailure::status("frame submission", status);
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

void VideoEncoder::previewEncoded(Status status, const EncodedSample* sample, double submitted,
                                  std::uint64_t id) {
  if (!running) return;
  encodeMilliseconds = (uptime() - submitted) * 1000.0;
  try {
    if (status != 0 || sample == nullptr) throw EncoderFailure::status("frame encoding", status);
    deliver(*sample, id);
  } catch (const EncoderFailure& failure) {
    fail(failure.description());
  }
}

}  // namespace lumora
