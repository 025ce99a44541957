#pragma once

// One run of the helper, of another tool, or of the encoders alone: the same pictures at a rate.

#include <functional>
#include <nlohmann/json.hpp>

#include "bench/contenders.h"
#include "tools/paced_run.h"

namespace lumora::bench {

constexpr client::FrameSize camera{1920, 1080};
constexpr client::FrameSize previewSize{640, 360};
constexpr client::FrameSize defaultTake{1080, 720};
constexpr int frames = 240;  // of each run

struct Job {
  client::FrameSize take;  // as a profile has it
  std::string preset;      // empty: as shipped
};

// What the camera sees; and the same as NV12 in the sizes of the encoders, for the encoders alone.
struct Clips {
  CameraClip rgba{camera};
  CameraClip nv12{camera, tools::nv12BT709};
  CameraClip preview{camera, previewSize};
  CameraClip smallTake{camera, defaultTake};
};

struct Run {
  nlohmann::json figures;                     // numbers by name
  std::vector<std::uint64_t> inPreview = {};  // the numbers of the frames in its files
  std::vector<std::uint64_t> inTake = {};
};

// Each throws std::runtime_error when a program fails.
Run runPeer(const std::string& command, CameraClip& clip, const Outputs& outputs, int rate);
Run runHelper(tools::RunOptions load, CameraClip& clip, int rate);
Run runEncoders(Clips& clips, const Job& job, int rate,
                const std::function<void()>& besideEach = {});
// Also reads each frame from a pipe: the least cost of a program that is fed through a pipe.
Run runEncodersAndPipe(Clips& clips, const Job& job, int rate, const CameraClip& clip);

nlohmann::json figuresOf(const tools::RunOptions& load, const tools::RunReport& report);

}  // namespace lumora::bench
