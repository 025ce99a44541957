#pragma once

#include <memory>

#include "input/raw_frame.h"
#include "platform/compression.h"

namespace lumora {

enum class Placement { stretch, aspectFit };

// A buffer of the session's pool for the camera frame, the top row first. The session's worker has
// `images` convert the frame into it: stretched, or fitted between black bars. A frame of the
// buffer's size is not copied: the buffer refers to its pixels. The pixels stay alive until they
// have been read. Throws EncoderFailure. State queue only.
std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement,
                                         std::shared_ptr<ImageConverter> images);

}  // namespace lumora
