#include "picture/system_frame_decoder.h"

#include <libyuv.h>

#include <new>

namespace lumora {
namespace {

int strideOf(const Plane& plane) { return static_cast<int>(plane.stride); }

}  // namespace

FrameDecoder::Decoded SystemFrameDecoder::decode(FrameEncoding encoding, const PixelFormat& format,
                                                 PictureSize size, ByteView record) {
  const PictureMemory memory = pictures_->allocate(pictureBytes(format.layout, size, rowAlignment));
  if (!memory) throw std::bad_alloc();
  const Picture picture = pictureAt(memory.get(), format, size, rowAlignment);
  if (!fill(picture, encoding, record)) return {};
  return {memory, picture};
}

// libyuv names RGB formats by the little-endian word: in memory, its RGB24 is B, G, R, and its ARGB
// is B, G, R, A. Its RAW is R, G, B in memory.
bool SystemFrameDecoder::fill(const Picture& picture, FrameEncoding encoding, ByteView record) {
  const std::uint8_t* from = record.data();
  const auto& [y, u, v] = picture.planes;
  const auto width = static_cast<int>(picture.size.width);
  const auto height = static_cast<int>(picture.size.height);
  switch (encoding) {
    case FrameEncoding::rgb24:
      return libyuv::RAWToARGB(from, width * 3, y.samples, strideOf(y), width, height) == 0;
    case FrameEncoding::bgr24:
      return libyuv::RGB24ToARGB(from, width * 3, y.samples, strideOf(y), width, height) == 0;
    case FrameEncoding::nv21:
      return libyuv::NV21ToI420(from, width, from + picture.size.width * height, width, y.samples,
                                strideOf(y), u.samples, strideOf(u), v.samples, strideOf(v), width,
                                height) == 0;
    case FrameEncoding::yuyv:
      return libyuv::YUY2ToI420(from, width * 2, y.samples, strideOf(y), u.samples, strideOf(u),
                                v.samples, strideOf(v), width, height) == 0;
    case FrameEncoding::uyvy:
      return libyuv::UYVYToI420(from, width * 2, y.samples, strideOf(y), u.samples, strideOf(u),
                                v.samples, strideOf(v), width, height) == 0;
    case FrameEncoding::mjpeg:
      return jpeg_.decode(record, picture);
    case FrameEncoding::rgba:
    case FrameEncoding::bgra:
    case FrameEncoding::nv12:
    case FrameEncoding::i420:
      break;  // sessions take these as they are
  }
  return false;
}

}  // namespace lumora
