#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
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

// A pipe as large as the helper's, into which another process writes `count` black frames.
class FramePipe {
 public:
  FramePipe(std::size_t frameBytes, int count);
  // Fills `frame`. Throws std::runtime_error at the end.
  void read(std::span<std::uint8_t> frame) const;

 private:
  std::shared_ptr<std::FILE> pipe_;
};

// 1 to `count`.
std::vector<std::uint64_t> firstNumbers(int count);

}  // namespace lumora::bench
