#pragma once

// Options per encoder for what this service needs: no delay, no B-frames, key frames on demand.

#include <string>

#include "codec/libav_support.h"
#include "platform/encoder_settings.h"

namespace lumora {

// Sets everything about `context` except its pixel format and its hardware frames. `context` must
// not be open yet. With an empty `preset` libx264 gets our own settings. 0 or an AVERROR.
Status tune(AVCodecContext& context, const std::string& preset, ColourMatrix matrix,
            const EncoderSettings& settings);

}  // namespace lumora
