#pragma once

// Opening encoders without waiting for a driver for ever. Any thread.

#include <chrono>

#include "codec/libav_encoder.h"

namespace lumora {

constexpr const char* softwareEncoder = "libx264";

using OpeningClock = std::chrono::steady_clock;
constexpr std::chrono::seconds longestOpening{1};

// A driver stands behind it: it may hang, refuse a session or a size, and serve only a few at once.
bool isHardware(const AVCodec& codec);

// Opens an encoder and has it encode a few grey `pictures`, or as many as show that its driver
// serves it: 0, or AVERROR(ETIMEDOUT) when that is not done by the deadline.
Status openBy(OpeningClock::time_point deadline, const CodecChoice& choice,
              const EncoderSettings& settings, int pictures,
              std::unique_ptr<LibavEncoder>& encoder);

// Touches the memory of a pixel buffer for a session of these settings.
void touchPixelBuffer(const CodecChoice& choice, const EncoderSettings& settings);

// Opens one that is needed at once, the choice's substitute where the chosen one can't be had.
Status openForSession(OpeningClock::time_point deadline, const CodecChoice& choice,
                      const EncoderSettings& settings, std::unique_ptr<LibavEncoder>& encoder);

}  // namespace lumora
