#pragma once

#include <string>

#include "bench/camera_clip.h"

namespace lumora::bench {

// How alike a video file and the clip it was made from are, by ffmpeg's measure: 1 is the same.
// Frame n of the file is taken to be frame n of the clip, scaled to fit between black bars.
double measureSSIM(const std::string& path, const CameraClip& clip, int frames,
                   client::FrameSize size);

}  // namespace lumora::bench
