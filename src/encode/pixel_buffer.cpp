#include "encode/pixel_buffer.h"

#include <cstring>

#include "encode/encoder_failure.h"
#include "encode/picture_size.h"

namespace lumora {
namespace {

constexpr int allocationThreshold = 3;  // buffers of one pool in use at once
constexpr std::ptrdiff_t bytesPerPixel = 4;

// Clears everything around `inner`.
void clearBars(const MutableImageView& view, const PictureRectangle& inner) {
  for (std::int64_t row = 0; row < view.height; ++row) {
    const auto clear = [&](std::int64_t left, std::int64_t right) {
      std::memset(view.pixels + row * view.stride + left * bytesPerPixel, 0,
                  static_cast<std::size_t>((right - left) * bytesPerPixel));
    };
    const bool isInside = row >= inner.top && row < inner.top + inner.size.height;
    clear(0, isInside ? inner.left : view.width);
    if (isInside) clear(inner.left + inner.size.width, view.width);
  }
}

}  // namespace

std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement, ImageConverter& images) {
  PixelBufferPool* pool = session.pixelBufferPool();
  if (pool == nullptr) throw EncoderFailure::message("no pixel buffer pool");
  const std::ptrdiff_t stride = frame.width * bytesPerPixel;
  const ImageView source{frame.rgba.get(), frame.width, frame.height, stride};
  const ImageView upsideDown{source.pixels + (frame.height - 1) * stride, frame.width, frame.height,
                             -stride};
  std::shared_ptr<PixelBuffer> buffer;
  Status status =
      pool->wrap({upsideDown, ChannelOrder::rgba}, frame.rgba, allocationThreshold, buffer);
  if (buffer) return buffer;
  if (status == 0) status = pool->create(allocationThreshold, buffer);
  if (status != 0 || !buffer) throw EncoderFailure::status("pixel buffer allocation", status);

  const MutableImageView whole = buffer->memory();
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
