#pragma once

// Shell commands that do the helper's job with common tools. Each reads the clip's raw frames and
// writes a 640×360 preview (Baseline) and a full-size take (High, MP4). Bit rates, buffers,
// key frame intervals and thread counts are the helper's.

#include <string>

#include "bench/camera_clip.h"

namespace lumora::bench {

struct Outputs {
  std::string preview = {};  // path of the H.264 byte stream
  std::string take = {};     // path of the MP4 file
};

// Scales and converts each output separately, as most people write the command. NV12 needs no
// conversion.
std::string ffmpegCommand(const CameraClip& clip, const std::string& preset,
                          const Outputs& outputs);
// Converts each RGBA frame once and scales the preview from the result: less work, but less common.
std::string ffmpegOnceCommand(const CameraClip& clip, const std::string& preset,
                              const Outputs& outputs);
std::string gstreamerCommand(const CameraClip& clip, const std::string& preset,
                             const Outputs& outputs);

}  // namespace lumora::bench
