#pragma once

#include <cstdint>
#include <vector>

#include "platform/encoder_settings.h"

namespace lumora {

constexpr int previewTargetFPS = 60;
constexpr std::int64_t previewBitRate = 4'000'000;     // bits per second
constexpr std::int64_t recordingBitRate = 12'000'000;  // bits per second

// The sessions that most runs will make: the preview of a camera of the preview's proportions, and
// a take of the default profile.
std::vector<EncoderSettings> expectedSessions(std::int64_t previewWidth,
                                              std::int64_t previewHeight);

}  // namespace lumora
