// The preview branch of the encode pipeline. A failure here ends the process.

#include <utility>

#include "app/video_encoder.h"
#include "base/out_of_memory.h"
#include "base/reason.h"
#include "encode/encoder_failure.h"
#include "encode/picture_size.h"
#include "encode/pixel_buffer.h"
#include "encode/session_settings.h"

namespace lumora {

void VideoEncoder::encodePreview(const RawFrame& frame,
                                 const std::shared_ptr<RawEncodingCompletion>& completion) {
  try {
    preparePreviewSession(frame);
    auto buffer = pixelBuffer(frame, *session, Placement::stretch, *platform.images);
    ++ordinal;
    const FrameProperties properties{.forceKeyFrame = std::exchange(forceIDR, false)};
    const Status status =
        submit(*session, std::move(buffer), {ordinal, previewTargetFPS}, properties, completion,
               [id = frame.id](VideoEncoder& self, const Encoded& encoded) {
                 self.previewEncoded(encoded, id);
               });
    if (status != 0) throw EncoderFailure::status("frame submission", status);
  } catch (const std::exception& failure) {
    retryUntilAllocated([&] { fail(reasonOf(failure)); });
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

void VideoEncoder::previewEncoded(const Encoded& encoded, std::uint64_t id) {
  if (!running) return;
  encodeMilliseconds = millisecondsSince(encoded.submitted);
  try {
    encoded.require("frame encoding");
    deliver(*encoded.sample, id);
  } catch (const std::exception& failure) {
    retryUntilAllocated([&] { fail(reasonOf(failure)); });
  }
}

}  // namespace lumora
