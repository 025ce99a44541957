#pragma once

#include <vector>

#include "tools/frame_source.h"

namespace lumora::bench {

// What a camera might see, since the work of encoders depends on it: detail of every size, edges, a
// hand that is not quite still, and the noise of a sensor. A seamless loop, drawn beforehand by
// ffmpeg, the same in every run.
class CameraClip final : public tools::FrameSource {
 public:
  // Throws std::runtime_error when ffmpeg does not draw it.
  explicit CameraClip(client::FrameSize size);
  client::FrameSize size() const override { return size_; }
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;
  std::size_t length() const { return 2 * (frames_.size() - 1); }  // frames, until it repeats

 private:
  client::FrameSize size_;
  std::vector<std::vector<std::uint8_t>> frames_;  // shown forwards, then backwards
};

}  // namespace lumora::bench
