#include "platform/image.h"

namespace lumora {
namespace {

constexpr PlaneShape rgb[] = {{.channels = 4}};
constexpr PlaneShape luma{.black = 16};
constexpr PlaneShape chroma{.columns = 2, .rows = 2, .black = 128, .fullBlack = 128};
constexpr PlaneShape chromaPair{
    .channels = 2, .columns = 2, .rows = 2, .black = 128, .fullBlack = 128};
constexpr PlaneShape nv12[] = {luma, chromaPair};
constexpr PlaneShape i420[] = {luma, chroma, chroma};

std::int64_t strideOf(const PlaneShape& shape, PictureSize size, std::int64_t alignment) {
  return (shape.rowBytes(size) + alignment - 1) / alignment * alignment;
}

}  // namespace

std::span<const PlaneShape> planesOf(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::nv12:
      return nv12;
    case PixelLayout::i420:
      return i420;
    case PixelLayout::bgra:
    case PixelLayout::rgba:
      break;
  }
  return rgb;
}

std::size_t pictureBytes(PixelLayout layout, PictureSize size, std::int64_t alignment) {
  std::int64_t bytes = 0;
  for (const PlaneShape& shape : planesOf(layout))
    bytes += strideOf(shape, size, alignment) * shape.rowCount(size);
  return static_cast<std::size_t>(bytes);
}

template <typename Byte>
BasicPicture<Byte> pictureAt(Byte* samples, const PixelFormat& format, PictureSize size,
                             std::int64_t alignment) {
  BasicPicture<Byte> picture{format, size};
  BasicPlane<Byte>* plane = picture.planes.data();
  for (const PlaneShape& shape : planesOf(format.layout)) {
    const std::int64_t stride = strideOf(shape, size, alignment);
    *plane++ = {samples, stride};
    samples += stride * shape.rowCount(size);
  }
  return picture;
}
template Picture pictureAt(std::uint8_t*, const PixelFormat&, PictureSize, std::int64_t);
template PictureView pictureAt(const std::uint8_t*, const PixelFormat&, PictureSize, std::int64_t);

PictureView upsideDown(const PictureView& picture) {
  PictureView turned = picture;
  PlaneView* plane = turned.planes.data();
  for (const PlaneShape& shape : planesOf(picture.format.layout)) {
    plane->samples += (shape.rowCount(picture.size) - 1) * plane->stride;
    plane->stride = -plane->stride;
    ++plane;
  }
  return turned;
}

PictureRectangle samplesIn(const PictureRectangle& pixels, const PlaneShape& shape) {
  const auto last = [](std::int64_t from, std::int64_t size, int pixelsPerSample) {
    return (from + size + pixelsPerSample - 1) / pixelsPerSample;
  };
  const std::int64_t left = pixels.left / shape.columns;
  const std::int64_t top = pixels.top / shape.rows;
  return {left,
          top,
          {last(pixels.left, pixels.size.width, shape.columns) - left,
           last(pixels.top, pixels.size.height, shape.rows) - top}};
}

}  // namespace lumora
