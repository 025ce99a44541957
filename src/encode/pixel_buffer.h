#pragma once

#include <memory>

#include "input/raw_frame.h"
#include "platform/compression.h"

namespace lumora {

enum class Placement { stretch, aspectFit };

// Returns a buffer for the frame. The buffer's picture has its top row first. Throws EncoderFailure
// if there is no buffer. If the session can encode the frame's pixels in place, the buffer refers
// to them. Otherwise `PixelBuffer::fill` converts the frame into the buffer with `images`:
// stretched, or fitted between black bars. The frame's memory stays alive until it has been read.
// State queue only.
std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement,
                                         std::shared_ptr<ImageConverter> images);

}  // namespace lumora
