#pragma once

#include <vector>

#include "tools/frame_source.h"

namespace lumora::bench {

// A clip that resembles a camera's, since an encoder's work depends on the picture: detail of every
// size, edges, a slight shake and the noise of a sensor. It loops without a jump. ffmpeg draws it
// in the constructor. It is the same in every run.
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
