#pragma once

#include "platform/sample.h"

namespace lumora {

// Whether a take's sample has an IDR picture. Throws EncoderFailure if the sample is invalid or too
// large.
bool recordingKeyframe(const EncodedSample& sample);

}  // namespace lumora
