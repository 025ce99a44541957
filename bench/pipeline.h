#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/camera_clip.h"

namespace lumora::bench {

struct PipelineReport {
  double cpuSeconds = 0;   // of the program
  double wallSeconds = 0;  // from the end of reading the first frame to the program's end
  double peakMegabytes = 0;
  std::string output = {};  // what it printed
};

// Runs a shell command, which gets the clip's frames of these numbers on its standard input: at a
// rate, or as fast as it reads if the rate is 0. Throws std::runtime_error when the command fails.
PipelineReport runPipeline(const std::string& command, CameraClip& clip,
                           const std::vector<std::uint64_t>& numbers, int framesPerSecond = 0);

// How alike a video file and the clip are, by ffmpeg's measure: 1 is the same. The frames of the
// file are the clip's frames of these numbers, scaled to fit `size` and padded with black.
double measureSSIM(const std::string& path, CameraClip& clip,
                   const std::vector<std::uint64_t>& numbers, client::FrameSize size);

}  // namespace lumora::bench
