#pragma once

// One run of the helper, of another tool, or of the encoders alone. All get the same pictures.

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
  client::FrameSize take;  // `camera` or `defaultTake`
  std::string preset;      // empty: as shipped
};

// What the camera sees, as RGBA and as NV12. `preview` and `smallTake` are NV12, already scaled for
// the encoders. Only `runEncoders` and `runEncodersAndPipe` use these two.
struct Clips {
  CameraClip rgba{camera};
  CameraClip nv12{camera, tools::nv12BT709};
  CameraClip preview{camera, previewSize};
  CameraClip smallTake{camera, defaultTake};
};

struct Run {
  nlohmann::json figures;                     // what was measured, by name
  std::vector<std::uint64_t> inPreview = {};  // numbers of the preview's frames; empty: not known
  std::vector<std::uint64_t> inTake = {};     // numbers of the take's frames; empty: not known
};

// Each of these throws std::runtime_error if the run fails. But once `runEncoders` or
// `runEncodersAndPipe` has begun to encode, a failure aborts the program.
Run runContender(const std::string& command, CameraClip& clip, const Outputs& outputs, int rate);
Run runHelper(tools::RunOptions load, CameraClip& clip, int rate);
Run runEncoders(Clips& clips, const Job& job, int rate,
                const std::function<void()>& besideEach = {});
// Does what `runEncoders` does. For each picture, also reads as many bytes from a pipe as a frame
// of `clip` has. No program that is fed through a pipe can cost less.
Run runEncodersAndPipe(Clips& clips, const Job& job, int rate, const CameraClip& clip);

nlohmann::json figuresOf(const tools::RunOptions& load, const tools::RunReport& report);

}  // namespace lumora::bench
