#pragma once

#include "encode/picture_size.h"
#include "platform/encoder_settings.h"

namespace lumora {

constexpr int previewTargetFPS = 60;

// The settings of a session: its factory, the encoders opened ahead of it and the benchmarks have
// them from here.
EncoderSettings sessionSettings(SessionKind kind, PictureSize size, int targetFPS);

}  // namespace lumora
