// The preview branch of the encode pipeline. A failure here ends the process.

#include "app/video_encoder.h"
#include "base/text.h"
#include "encode/encoder_failure.h"
#include "encode/pixel_buffer.h"
#include "encode/session_settings.h"

namespace lumora {

void VideoEncoder::encodePreview(const RawFrame& frame,
                                 const std::shared_ptr<RawEncodingCompletion>& completion) {
  try {
    preparePreviewSession(frame);
    auto buffer = pixelBuffer(frame, *preview.session, Placement::stretch, platform.previewImages);
    // The picture is scaled on this thread, because it is running. The session's worker may have to
    // wait for a CPU while the take's encoder works.
    if (!buffer->fill()) throw EncoderFailure::conversion();
    ++preview.ordinal;
    submit(*preview.session, std::move(buffer), {preview.ordinal, previewTargetFPS},
           std::exchange(preview.forceIDR, false), completion, "frame submission",
           weakly(&VideoEncoder::previewEncoded, frame.id));
  } catch (const std::exception& failure) {
    fail(reasonOf(failure));
  }
}

void VideoEncoder::preparePreviewSession(const RawFrame& frame) {
  const PictureSize size = previewEncodeSize(
      {frame.width, frame.height}, {configuration.previewWidth, configuration.previewHeight},
      configuration.exactPreviewDimensions);
  if (preview.session && size == PictureSize{preview.width, preview.height}) return;
  if (preview.session) preview.session->invalidate();
  preview.session.reset();
  preview.width = size.width;
  preview.height = size.height;
  preview.session =
      compressionSession(sessionSettings(SessionKind::preview, size, previewTargetFPS));
  preview.forceIDR = true;
  for (const auto& [id, peer] : preview.peers) peer->awaitingIDR = true;
}

void VideoEncoder::previewEncoded(std::uint64_t id, const Encoded& encoded) {
  if (!running) return;
  preview.encodeMilliseconds = millisecondsSince(encoded.submitted);
  try {
    encoded.require("frame encoding");
    deliver(*encoded.sample, id);
  } catch (const std::exception& failure) {
    fail(reasonOf(failure));
  }
}

}  // namespace lumora
