#pragma once

#include <memory>

#include "input/raw_frame.h"
#include "platform/compression.h"

namespace lumora {

enum class Placement { stretch, aspectFit };

// A buffer of the session's pool with the camera frame in it, the top row first. The frame fills
// the buffer, or is fitted between black bars. A frame of the buffer's size is not copied: the
// buffer refers to its pixels and keeps them alive. Throws EncoderFailure. State queue only.
std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement, ImageConverter& images);

}  // namespace lumora
