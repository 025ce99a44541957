#pragma once

#include <vector>

#include "tools/frame_source.h"

namespace lumora::bench {

// A clip like a camera's: detail of every size, edges, a slight shake and the noise of a sensor. An
// encoder's work depends on these. The clip loops without a jump, and is the same in every run.
// The constructors let ffmpeg draw the clip, and throw std::runtime_error when a frame is missing.
class CameraClip final : public tools::FrameSource {
 public:
  // `format` may be RGBA with the bottom row first (the default) or `tools::nv12BT709`.
  explicit CameraClip(client::FrameSize camera, const client::FrameFormat& format = {})
      : CameraClip(camera, format, camera) {}
  // The frames are NV12, drawn in the size `camera` and scaled to fit `size`.
  CameraClip(client::FrameSize camera, client::FrameSize size)
      : CameraClip(camera, tools::nv12BT709, size) {}
  client::FrameSize size() const override { return size_; }
  client::FrameFormat format() const override { return format_; }
  bool isNV12() const { return format_.encoding == client::FrameEncoding::nv12; }
  const char* formatName() const { return isNV12() ? "nv12" : "rgba"; }  // as ffmpeg calls it
  // ffmpeg's filter that turns frames upright.
  const char* uprightFilter() const { return isNV12() ? "null" : "vflip"; }
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;
  std::size_t frameBytes() const { return frames_[0].size(); }
  std::size_t length() const { return 2 * (frames_.size() - 1); }  // frames before the clip repeats

 private:
  CameraClip(client::FrameSize camera, const client::FrameFormat& format, client::FrameSize size);

  client::FrameSize size_;
  client::FrameFormat format_;
  std::vector<std::vector<std::uint8_t>> frames_;  // shown forwards, then backwards
};

}  // namespace lumora::bench
