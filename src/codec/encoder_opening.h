#pragma once

// Opening an encoder, with a limit on how long a driver may take. Any thread.

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

// Opens an encoder and encodes some grey `pictures`; hardware encodes at least two, since some
// drivers refuse only then. Blocks for as long as the driver does. Never throws.
OpenResult openNow(const OpenEncoder& open, const EncoderSpec& spec,
                   const EncoderSettings& settings, int pictures);

// The same; hardware is opened on a thread that is left behind with a driver that hangs, and the
// answer is AVERROR(ETIMEDOUT) after the deadline. Never throws.
OpenResult openBy(OpeningClock::time_point deadline, const OpenEncoder& open,
                  const EncoderSpec& spec, const EncoderSettings& settings, int pictures);

// Touches the memory of a pixel buffer for a session of these settings.
void touchPixelBuffer(const EncoderSpec& spec, const EncoderSettings& settings);

}  // namespace lumora
