#pragma once

#include <string>

#include "bench/camera_clip.h"

namespace lumora::bench {

// How alike a video file and the clip it was made from are, by ffmpeg's measure: 1 is the same.
// The file's frames are the clip's of these numbers, scaled to fit between black bars.
double measureSSIM(const std::string& path, CameraClip& clip,
                   const std::vector<std::uint64_t>& numbers, client::FrameSize size);

}  // namespace lumora::bench
