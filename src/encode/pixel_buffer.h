#pragma once

#include <memory>

#include "input/raw_frame.h"
#include "platform/compression.h"

namespace lumora {

enum class Placement { stretch, aspectFit };

// Makes a buffer for the camera frame from the session's pool, the top row first. If the frame has
// the session's size, the buffer refers to the frame's pixels. Otherwise the session's worker
// converts the frame into the buffer with `images`: stretched, or fitted between black bars. The
// buffer keeps the frame's pixels until they are read. Throws EncoderFailure. State queue only.
std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement,
                                         std::shared_ptr<ImageConverter> images);

}  // namespace lumora
