#pragma once

#include <vector>

#include "base/picture_memory.h"
#include "tools/frame_source.h"

namespace lumora::bench {

// What a camera might see, for measurements that depend on the picture: detail of every size,
// sharp edges, a hand that is not quite still, something that moves, and the sensor's noise. A
// seamless loop, drawn beforehand, the same in every run.
class CameraClip final : public tools::FrameSource {
 public:
  // `frames` pictures are kept in memory, and have been through a pipe once, so that no later
  // write of one costs more than another.
  CameraClip(client::FrameSize size, int frames);
  client::FrameSize size() const override { return size_; }
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;
  const std::vector<std::span<const std::uint8_t>>& frames() const { return frames_; }

 private:
  client::FrameSize size_;
  std::vector<PictureMemory> memory_;
  std::vector<std::span<const std::uint8_t>> frames_;
};

}  // namespace lumora::bench
