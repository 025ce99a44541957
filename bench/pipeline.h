#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/camera_clip.h"

namespace lumora::bench {

struct PipelineReport {
  double cpuSeconds = 0;   // of the program
  double wallSeconds = 0;  // from the first frame that it has read to its end
  double peakMegabytes = 0;
  std::string output = {};  // what it printed
};

// Runs a shell command that reads the clip's frames of these numbers from its standard input, at a
// rate or (0) as fast as it takes them. Throws std::runtime_error when it fails.
PipelineReport runPipeline(const std::string& command, CameraClip& clip,
                           const std::vector<std::uint64_t>& numbers, int framesPerSecond = 0);

// How alike a video file and the clip are, by ffmpeg's measure: 1 is the same. The frames of the
// file are the clip's frames of these numbers, scaled to fit `size` and padded with black.
double measureSSIM(const std::string& path, CameraClip& clip,
                   const std::vector<std::uint64_t>& numbers, client::FrameSize size);

}  // namespace lumora::bench
