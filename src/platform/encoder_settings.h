#pragma once

#include <cstdint>

#include "platform/compression.h"

namespace lumora {

// What a session's properties come down to. The service decides them in one place, a session puts
// them together again from its properties.
struct EncoderSettings {
  SessionKind kind;
  int width;   // pixels
  int height;  // pixels
  ProfileLevel profile;
  std::int64_t frameRate;         // frames per second, expected
  std::int64_t keyFrameInterval;  // frames, at most
  std::int64_t bitRate;           // bits per second, average

  // The decoder's buffer that the rate control keeps to (VBV), in bits: one second's worth.
  std::int64_t bufferBits() const { return bitRate; }

  bool operator==(const EncoderSettings&) const = default;
};

}  // namespace lumora
