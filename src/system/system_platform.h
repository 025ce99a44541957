#pragma once

#include <string>

#include "platform/platform.h"

namespace lumora {

// The real machine. `h264Encoder` is the value of TAVO_H264_ENCODER, or "" if there is none. See
// codec/allowed_encoders.h.
Platform makeSystemPlatform(const std::string& h264Encoder);

}  // namespace lumora
