#pragma once

#include <string>

#include "platform/platform.h"

namespace lumora {

// The real machine. `h264Encoder` is the value of TAVO_H264_ENCODER, or "" if that is not set (see
// codec/allowed_encoders.h). `frames` is the pixel format of this run's frames.
Platform makeSystemPlatform(const std::string& h264Encoder, const PixelFormat& frames = {});

}  // namespace lumora
