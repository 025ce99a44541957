// Fuzzes the decoder of JPEG pictures.

#include <algorithm>

#include "picture/system_frame_decoder.h"

namespace {

using namespace lumora;

// The size in the first baseline or progressive frame header, made even and limited to 640x480.
// Without such a header: 64x32.
PictureSize sizeIn(ByteView jpeg) {
  for (std::size_t at = 0; at + 9 <= jpeg.size(); ++at) {
    if (jpeg[at] != 0xFF || jpeg[at + 1] < 0xC0 || jpeg[at + 1] > 0xC2) continue;
    const auto side = [&](std::size_t offset, int most) {
      return std::clamp((jpeg[at + offset] * 256 + jpeg[at + offset + 1]) & ~1, 2, most);
    };
    return {side(7, 640), side(5, 480)};
  }
  return {64, 32};
}

// Reads all samples, so that the sanitizer sees memory that is too short.
void read(const PictureView& picture) {
  static volatile unsigned sum = 0;
  for (std::size_t i = 0; i < planesOf(picture.format.layout).size(); ++i) {
    const PlaneShape& shape = planesOf(picture.format.layout)[i];
    for (std::int64_t row = 0; row < picture.size.height / shape.rows; ++row) {
      const std::uint8_t* const samples =
          picture.planes[i].samples + row * picture.planes[i].stride;
      const std::int64_t bytes = picture.size.width / shape.columns * shape.channels;
      for (std::int64_t at = 0; at < bytes; ++at) sum = sum + samples[at];
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static SystemFrameDecoder decoder(PicturePool::make());
  const ByteView jpeg(data, size);
  const PixelFormat format{PixelLayout::i420, ColourMatrix::bt601, true};
  const auto decoded = decoder.decode(FrameEncoding::mjpeg, format, sizeIn(jpeg), jpeg);
  if (decoded.memory) read(decoded.picture);
  return 0;
}
