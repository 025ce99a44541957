#pragma once

#include "platform/sample.h"

namespace lumora {

// Whether the sample of a take holds an IDR picture. Throws EncoderFailure when it is malformed.
bool recordingKeyframe(const EncodedSample& sample);

}  // namespace lumora
