#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tools/frame_source.h"

namespace lumora::tools {

// Pictures of a video file (played in a loop) or a camera device ("/dev/video0"), decoded and
// brought to size and rate by ffmpeg.
class FfmpegSource final : public FrameSource {
 public:
  // Throws std::system_error when ffmpeg can't be started.
  FfmpegSource(const std::string& input, client::FrameSize size, int framesPerSecond);
  client::FrameSize size() const override { return size_; }
  bool keepsTime() const override { return isCamera_; }
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;

 private:
  struct ClosePipe {
    void operator()(std::FILE* pipe) const { pclose(pipe); }
  };
  client::FrameSize size_;
  bool isCamera_;
  std::unique_ptr<std::FILE, ClosePipe> pipe_;
  std::vector<std::uint8_t> frame_;
};

// What INPUT in the environment names, or else a test card. Before any thread.
std::unique_ptr<FrameSource> openInput(client::FrameSize size, int framesPerSecond);

}  // namespace lumora::tools
