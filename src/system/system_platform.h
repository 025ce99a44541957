#pragma once

#include <string>

#include "platform/platform.h"

namespace lumora {

// The real machine. `h264Encoder` is the value of TAVO_H264_ENCODER ("" counts as "auto"): auto,
// hardware, software, or the name of a libavcodec encoder.
Platform makeSystemPlatform(const std::string& h264Encoder);

}  // namespace lumora
