#pragma once

// Options per encoder for what this service needs: no delay, no B-frames, key frames on demand.

#include <string>

#include "codec/libav_support.h"
#include "platform/encoder_settings.h"

namespace lumora {

// Sets everything about `context`, which is not open yet, except its pixel format and hardware
// frames. 0 or an AVERROR.
// With an empty `preset` libx264 gets our own settings.
Status tune(AVCodecContext& context, const std::string& preset, ColourMatrix matrix,
            const EncoderSettings& settings);

}  // namespace lumora
