#include "picture/encoder_picture.h"

#include <libyuv.h>

#include "picture/range.h"
#include "picture/rgb_to_yuv.h"

namespace lumora {
namespace {

int strideOf(PlaneView plane) { return static_cast<int>(plane.stride); }

void convertRGB(const PictureView& source, const Picture& destination) {
  const auto& [y, u, v] = destination.planes;
  if (destination.format.layout == PixelLayout::nv12) return convertToNV12(source, y, u);
  convertToI420(source, y, u, v);
}

// Converts nv12 to i420, or i420 to nv12.
void changeLayout(const PictureView& source, const Picture& destination) {
  const auto& from = source.planes;
  const auto& to = destination.planes;
  const auto width = static_cast<int>(source.size.width);
  const auto height = static_cast<int>(source.size.height);
  const auto stride = [](const auto& plane) { return static_cast<int>(plane.stride); };
  if (source.format.layout == PixelLayout::nv12) {
    libyuv::NV12ToI420(from[0].samples, stride(from[0]), from[1].samples, stride(from[1]),
                       to[0].samples, stride(to[0]), to[1].samples, stride(to[1]), to[2].samples,
                       stride(to[2]), width, height);
  } else {
    libyuv::I420ToNV12(from[0].samples, stride(from[0]), from[1].samples, stride(from[1]),
                       from[2].samples, stride(from[2]), to[0].samples, stride(to[0]),
                       to[1].samples, stride(to[1]), width, height);
  }
}

// Calls `copy` for each plane. Both pictures have the same layout.
template <typename Copy>
void forEachPlane(const PictureView& source, const Picture& destination, Copy copy) {
  std::size_t i = 0;
  for (const PlaneShape& shape : planesOf(source.format.layout)) {
    copy(source.planes[i], destination.planes[i], shape.rowBytes(source.size),
         shape.rowCount(source.size), shape.columns == 1 ? SampleKind::luma : SampleKind::chroma);
    ++i;
  }
}

}  // namespace

void fillEncoderPicture(const PictureView& source, const Picture& destination) {
  if (isRGB(source.format.layout)) return convertRGB(source, destination);
  const bool isSameLayout = source.format.layout == destination.format.layout;
  if (!isSameLayout) changeLayout(source, destination);
  const PictureView from = isSameLayout ? source : destination;
  if (source.format.fullRange) {
    forEachPlane(from, destination, compressRange);
  } else if (isSameLayout) {
    forEachPlane(from, destination,
                 [](PlaneView plane, Plane to, std::int64_t bytes, std::int64_t rows, SampleKind) {
                   libyuv::CopyPlane(plane.samples, strideOf(plane), to.samples,
                                     static_cast<int>(to.stride), static_cast<int>(bytes),
                                     static_cast<int>(rows));
                 });
  }
}

}  // namespace lumora
