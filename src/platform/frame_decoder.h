#pragma once

// Decodes frames in encodings that no encoder session takes, for example JPEG.

#include <memory>

#include "base/bytes.h"
#include "platform/image.h"

namespace lumora {

// How a frame record holds its picture. docs/protocol.md describes each.
enum class FrameEncoding { rgba, bgra, rgb24, bgr24, nv12, nv21, i420, yuyv, uyvy, mjpeg };

class FrameDecoder {
 public:
  struct Decoded {
    std::shared_ptr<const std::uint8_t[]> memory;
    PictureView picture;
  };

  virtual ~FrameDecoder() = default;
  // The picture of a record, in memory of its own, with the rows in the record's order. The decoded
  // picture gets `format`. The caller has checked the record's length. Null memory if the record is
  // not a complete picture of this size. Throws std::bad_alloc. Reader thread.
  virtual Decoded decode(FrameEncoding encoding, const PixelFormat& format, PictureSize size,
                         ByteView record) = 0;
};

}  // namespace lumora
