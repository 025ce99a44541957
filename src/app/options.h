#pragma once

// The configuration of one run, from the command line and the environment. Read once, at launch.
// Pure.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "input/frame_format.h"
#include "sound/sound_format.h"

namespace lumora {

struct Configuration {
  std::string host = "127.0.0.1";
  std::uint16_t port = 0;  // 0: the system picks a free one
  std::string token = {};
  std::int64_t previewWidth = 640;
  std::int64_t previewHeight = 360;
  bool exactPreviewDimensions = false;            // the width or the height was given
  std::optional<int> frameMemoryDescriptor = {};  // of memory that the parent shares
  FrameFormat frameFormat = {};
  std::optional<SoundFormat> sound = {};  // the format; empty: the parent sends no sound
  std::string h264Encoder = {};           // which encoders may be used; empty: the default

  bool operator==(const Configuration&) const = default;
};

using Environment = std::map<std::string, std::string>;

// The configuration that `arguments` (without the program's name) and `environment` describe. Empty
// if an argument or a variable is invalid, or the token is missing. Does not check whether the
// shared memory and the encoder exist.
std::optional<Configuration> options(const std::vector<std::string>& arguments,
                                     const Environment& environment);

}  // namespace lumora
