#pragma once

#include "platform/compression.h"

namespace lumora {

// The kind, the size and the properties of a session. A session has one `EncoderSettings`.
// `setProperty` of CompressionSession sets the properties that are fields of it.
struct EncoderSettings {
  SessionKind kind;
  int width;   // pixels
  int height;  // pixels
  ProfileLevel profile;
  std::int64_t frameRate;         // frames per second, expected
  std::int64_t keyFrameInterval;  // frames, at most
  std::int64_t bitRate;           // bits per second, average

  // The size of the decoder's buffer (VBV) that rate control assumes: the bits of one second.
  std::int64_t bufferBits() const { return bitRate; }

  bool operator==(const EncoderSettings&) const = default;
};

}  // namespace lumora
