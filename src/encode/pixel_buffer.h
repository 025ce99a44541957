#pragma once

#include <memory>

#include "input/raw_frame.h"
#include "platform/compression.h"

namespace lumora {

enum class Placement { stretch, aspectFit };

// The camera frame as a buffer of the session's own pool: BGRA, turned upside down, stretched to
// the whole buffer or fitted inside it between black bars. One of the same size is wrapped
// where it lies, and kept for that. Throws EncoderFailure. State queue only.
std::shared_ptr<PixelBuffer> pixelBuffer(const RawFrame& frame, CompressionSession& session,
                                         Placement placement, ImageConverter& images);

}  // namespace lumora
