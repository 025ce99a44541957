#pragma once

// Options per encoder for what this service needs: no delay, no B-frames, key frames on demand.

#include <string>

#include "codec/libav_support.h"
#include "platform/encoder_settings.h"

namespace lumora {

// Sets everything about `context` but its pixel format, before it is opened: 0 or an AVERROR. An
// empty `preset` of the software encoder stands for our own settings.
Status tune(AVCodecContext& context, const std::string& preset, ColourMatrix matrix,
            const EncoderSettings& settings);

}  // namespace lumora
