#pragma once

// Opening encoders without waiting for a driver for ever. Any thread.

#include <chrono>
#include <functional>

#include "codec/libav_encoder.h"

namespace lumora {

using OpeningClock = std::chrono::steady_clock;
constexpr std::chrono::seconds longestOpening{1};

// Opens an encoder: 0 or an AVERROR. Drivers may take as long as they like.
using OpenEncoder = std::function<Status(const EncoderSpec&, const EncoderSettings&,
                                         std::unique_ptr<LibavEncoder>& encoder)>;

// An encoder, or why there is none: an AVERROR.
struct OpenResult {
  Status status = 0;
  std::unique_ptr<LibavEncoder> encoder = {};
  bool isSubstitute = false;  // in place of the one that was asked for
};

// A driver stands behind it: it may hang, refuse a session or a size, and serve only a few at once.
bool isHardware(const AVCodec& codec);

// Opens an encoder and has it encode a few grey `pictures`, or as many as show that its driver
// serves it; AVERROR(ETIMEDOUT) when that is not done by the deadline.
OpenResult openBy(OpeningClock::time_point deadline, const OpenEncoder& open,
                  const EncoderSpec& spec, const EncoderSettings& settings, int pictures);

// Touches the memory of a pixel buffer for a session of these settings.
void touchPixelBuffer(const EncoderSpec& spec, const EncoderSettings& settings);

}  // namespace lumora
