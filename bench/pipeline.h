#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/camera_clip.h"

namespace lumora::bench {

struct PipelineReport {
  double cpuSeconds = 0;   // of the command
  double wallSeconds = 0;  // from when the first frame is in the pipe to the command's end
  double peakMegabytes = 0;
  std::string output = {};  // what the command printed
};

// Runs a shell command. Writes the clip's frames with these numbers to the command's standard
// input: at this rate, or as fast as the command reads if the rate is 0. Throws std::runtime_error
// when the command fails.
PipelineReport runPipeline(const std::string& command, CameraClip& clip,
                           const std::vector<std::uint64_t>& numbers, int framesPerSecond = 0);

// How alike a video file and the clip are, as ffmpeg measures SSIM; 1: identical. The file must
// hold the clip's frames with these numbers, scaled to fit `size` and padded with black.
double measureSSIM(const std::string& path, CameraClip& clip,
                   const std::vector<std::uint64_t>& numbers, client::FrameSize size);

}  // namespace lumora::bench
