#pragma once

#include <string>
#include <vector>

#include "bench/camera_clip.h"

namespace lumora::bench {

struct PipelineReport {
  double cpuSeconds = 0;   // of the program and what it waited for
  double wallSeconds = 0;  // from launch to end
  double peakMegabytes = 0;
};

// Runs a program that reads the clip's frames of these numbers from its standard input, at a rate
// or (0) as fast as it takes them. Throws std::runtime_error when it fails.
PipelineReport runPipeline(const std::vector<std::string>& command, CameraClip& clip,
                           const std::vector<std::uint64_t>& numbers, int framesPerSecond = 0);

// 1 to `count`.
std::vector<std::uint64_t> firstNumbers(int count);

}  // namespace lumora::bench
