#include "picture/system_frame_decoder.h"

#include <libyuv.h>

#include <new>

namespace lumora {
namespace {

// libyuv names RGB formats by the little-endian word: its RAW is R, G, B in memory, its RGB24 is
// B, G, R, and its ARGB is BGRA. False for an encoding that is not unpacked.
bool unpack(FrameEncoding encoding, const std::uint8_t* from, const Picture& picture) {
  const auto& [y, u, v] = picture.planes;
  const auto width = static_cast<int>(picture.size.width);
  const auto height = static_cast<int>(picture.size.height);
  const auto stride = [](const Plane& plane) { return static_cast<int>(plane.stride); };
  switch (encoding) {
    case FrameEncoding::rgb24:
      libyuv::RAWToARGB(from, width * 3, y.samples, stride(y), width, height);
      return true;
    case FrameEncoding::bgr24:
      libyuv::RGB24ToARGB(from, width * 3, y.samples, stride(y), width, height);
      return true;
    case FrameEncoding::nv21:
      libyuv::NV21ToI420(from, width, from + picture.size.width * height, width, y.samples,
                         stride(y), u.samples, stride(u), v.samples, stride(v), width, height);
      return true;
    case FrameEncoding::yuyv:
      libyuv::YUY2ToI420(from, width * 2, y.samples, stride(y), u.samples, stride(u), v.samples,
                         stride(v), width, height);
      return true;
    case FrameEncoding::uyvy:
      libyuv::UYVYToI420(from, width * 2, y.samples, stride(y), u.samples, stride(u), v.samples,
                         stride(v), width, height);
      return true;
    case FrameEncoding::rgba:
    case FrameEncoding::bgra:
    case FrameEncoding::nv12:
    case FrameEncoding::i420:
    case FrameEncoding::mjpeg:
      break;
  }
  return false;
}

}  // namespace

FrameDecoder::Decoded SystemFrameDecoder::decode(FrameEncoding encoding, const PixelFormat& format,
                                                 PictureSize size, ByteView record) {
  const PictureMemory memory =
      pictures_->allocate(pictureBytes(format.layout, size, JpegDecoder::alignment));
  if (!memory) throw std::bad_alloc();
  const Picture picture = pictureAt(memory.get(), format, size, JpegDecoder::alignment);
  const bool isDecoded = encoding == FrameEncoding::mjpeg
                             ? jpeg_.decode(record, picture)
                             : unpack(encoding, record.data(), picture);
  if (!isDecoded) return {};
  return {memory, picture};
}

}  // namespace lumora
