#include "encode/pixel_buffer.h"

#include <cstring>

#include "encode/encoder_failure.h"
#include "encode/picture_size.h"

namespace lumora {
namespace {

constexpr int allocationThreshold = 3;  // buffers of one pool in use at once
constexpr std::ptrdiff_t bytesPerPixel = 4;

void clearRows(const MutableImageView& view, std::int64_t from, std::int64_t to, std::int64_t left,
               std::int64_t right) {
  if (right <= left) return;
  for (std::int64_t row = from; row < to; ++row) {
    std::memset(view.pixels + row * view.stride + left * bytesPerPixel, 0,
                static_cast<std::size_t>((right - left) * bytesPerPixel));
  }
}

ImageView upsideDown(const ImageView& view) {
  return {view.pixels + (view.height - 1) * view.stride, view.width, view.height, -view.stride};
}

// Everything around `inner` becomes zero; the picture itself is about to be written.
void clearBars(const MutableImageView& view, const PictureRectangle& inner) {
  const std::int64_t bottom = inner.top + inner.size.height;
  clearRows(view, 0, inner.top, 0, view.width);
  clearRows(view, inner.top, bottom, 0, inner.left);
  clearRows(view, inner.top, bottom, inner.left + inner.size.width, view.width);
  clearRows(view, bottom, view.height, 0, view.width);
}

}  // namespace

std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement, ImageConverter& images) {
  PixelBufferPool* pool = session.pixelBufferPool();
  if (pool == nullptr) throw EncoderFailure::message("no pixel buffer pool");
  std::shared_ptr<PixelBuffer> buffer;
  const ImageView source{frame.rgba.get(), frame.width, frame.height, frame.width * bytesPerPixel};
  Status status =
      pool->wrap({upsideDown(source), ChannelOrder::rgba}, frame.rgba, allocationThreshold, buffer);
  if (buffer) return buffer;
  if (status == 0) status = pool->create(allocationThreshold, buffer);
  if (status != 0 || !buffer) throw EncoderFailure::status("pixel buffer allocation", status);

  const MutableImageView whole = buffer->memory();
  if (whole.pixels == nullptr) throw EncoderFailure::message("pixel buffer has no memory");

  const PictureSize wholeSize{whole.width, whole.height};
  PictureRectangle rectangle{0, 0, wholeSize};
  if (placement == Placement::aspectFit) {
    rectangle = fitRectangle({frame.width, frame.height}, wholeSize);
    clearBars(whole, rectangle);
  }
  const MutableImageView destination{
      whole.pixels + rectangle.top * whole.stride + rectangle.left * bytesPerPixel,
      rectangle.size.width, rectangle.size.height, whole.stride};
  if (!images.convert(source, destination)) {
    throw EncoderFailure::message("RGBA conversion failed");
  }
  return buffer;
}

}  // namespace lumora
