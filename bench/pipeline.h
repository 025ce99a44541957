#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/camera_clip.h"

namespace lumora::bench {

struct PipelineReport {
  double cpuSeconds = 0;   // of the program
  double wallSeconds = 0;  // from when the first frame is in the pipe to the program's end
  double peakMegabytes = 0;
  std::string output = {};  // what it printed
};

// Runs a shell command, and writes the clip's frames with these numbers to its standard input: at
// this rate, or as fast as the command reads if the rate is 0. Throws std::runtime_error when the
// command fails.
PipelineReport runPipeline(const std::string& command, CameraClip& clip,
                           const std::vector<std::uint64_t>& numbers, int framesPerSecond = 0);

// How alike a video file and the clip are, by ffmpeg's measure: 1 is the same. The file must
// hold the clip's frames with these numbers, scaled to fit `size` and padded with black.
double measureSSIM(const std::string& path, CameraClip& clip,
                   const std::vector<std::uint64_t>& numbers, client::FrameSize size);

}  // namespace lumora::bench
