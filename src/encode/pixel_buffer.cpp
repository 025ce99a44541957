#include "encode/pixel_buffer.h"

#include <cstring>

#include "encode/encoder_failure.h"
#include "encode/picture_size.h"

namespace lumora {
namespace {

constexpr int allocationThreshold = 3;  // the most buffers of one pool that may be in use at once

// Blackens the samples of a plane that lie outside `inner`. `whole` and `inner` count samples.
void clearBars(Plane plane, PictureSize whole, const PictureRectangle& inner, int channels,
               std::uint8_t black) {
  for (std::int64_t row = 0; row < whole.height; ++row) {
    const auto clear = [&](std::int64_t left, std::int64_t right) {
      std::memset(plane.samples + row * plane.stride + left * channels, black,
                  static_cast<std::size_t>((right - left) * channels));
    };
    const bool isInside = row >= inner.top && row < inner.top + inner.size.height;
    clear(0, isInside ? inner.left : whole.width);
    if (isInside) clear(inner.left + inner.size.width, whole.width);
  }
}

void clearBars(const Picture& picture, const PictureRectangle& inner) {
  const auto& [format, size, planes] = picture;
  std::size_t i = 0;
  for (const PlaneShape& shape : planesOf(format.layout)) {
    clearBars(planes[i++], {size.width / shape.columns, size.height / shape.rows},
              samplesIn(inner, shape), shape.channels,
              format.fullRange ? shape.fullBlack : shape.black);
  }
}

Filling conversion(const RawFrame& frame, Placement placement,
                   std::shared_ptr<ImageConverter> images) {
  return [picture = frame.picture, owner = frame.rgba, placement,
          images = std::move(images)](const Picture& whole) {
    PictureRectangle area{0, 0, whole.size};
    if (placement == Placement::aspectFit) {
      area = fitRectangle(picture.size, whole.size);
      clearBars(whole, area);
    }
    return images->convert(picture, whole, area);
  };
}

}  // namespace

std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement,
                                         std::shared_ptr<ImageConverter> images) {
  PixelBufferPool* pool = session.pixelBufferPool();
  if (pool == nullptr) throw EncoderFailure::message("no pixel buffer pool");
  std::shared_ptr<PixelBuffer> buffer;
  Status status = pool->wrap(frame.picture, frame.rgba, allocationThreshold, buffer);
  if (buffer) return buffer;
  if (status == 0) {
    status =
        pool->create(allocationThreshold, conversion(frame, placement, std::move(images)), buffer);
  }
  if (status != 0 || !buffer) throw EncoderFailure::status("pixel buffer allocation", status);
  return buffer;
}

}  // namespace lumora
