#pragma once

#include "base/picture_memory.h"
#include "picture/jpeg.h"
#include "platform/frame_decoder.h"

namespace lumora {

class SystemFrameDecoder final : public FrameDecoder {
 public:
  explicit SystemFrameDecoder(std::shared_ptr<PicturePool> pictures)
      : pictures_(std::move(pictures)) {}
  Decoded decode(FrameEncoding encoding, const PixelFormat& format, PictureSize size,
                 ByteView record) override;

 private:
  bool fill(const Picture& picture, FrameEncoding encoding, ByteView record);

  const std::shared_ptr<PicturePool> pictures_;
  JpegDecoder jpeg_;
};

}  // namespace lumora
