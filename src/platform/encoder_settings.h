#pragma once

#include <cstdint>
#include <string>

#include "platform/compression.h"

namespace lumora {

// What a session's properties come down to.
struct EncoderSettings {
  int width = 0;   // pixels
  int height = 0;  // pixels
  ProfileLevel profile = ProfileLevel::baselineAuto;
  std::int64_t frameRate = 60;         // frames per second, expected
  std::int64_t keyFrameInterval = 60;  // frames, at most
  std::int64_t bitRate = 4'000'000;    // bits per second, average
  std::string preset = {};             // of a software encoder; empty: ours

  bool operator==(const EncoderSettings&) const = default;
};

}  // namespace lumora
