#pragma once

#include <memory>

#include "input/raw_frame.h"
#include "platform/compression.h"

namespace lumora {

enum class Placement { stretch, aspectFit };

// The camera frame in a buffer of the session's pool, the top row first: stretched to the whole
// buffer, or fitted into it between black bars. A frame of the buffer's size is not copied: the
// buffer refers to its pixels and holds on to them. Throws EncoderFailure. State queue only.
std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement, ImageConverter& images);

}  // namespace lumora
