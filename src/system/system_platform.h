#pragma once

#include <string>
#include <vector>

#include "platform/encoder_settings.h"
#include "platform/platform.h"

namespace lumora {

// The real machine. `h264Encoder` is the value of TAVO_H264_ENCODER ("" counts as "auto"): auto,
// hardware, software, or the name of a libavcodec encoder.
// Encoders of the `expected` settings are opened ahead of their sessions; a listener is ready when
// they are open or known to fail, or half a second has passed.
Platform makeSystemPlatform(const std::string& h264Encoder, std::vector<EncoderSettings> expected);

}  // namespace lumora
