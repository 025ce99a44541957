#pragma once

#include "tools/frame_source.h"

namespace lumora::tools {

// A moving test card: colour bars and a fine pattern that scroll, and a clock that tells frames
// apart. It is cheap to draw, so that a measurement sees the helper and not the card.
class TestCard final : public FrameSource {
 public:
  explicit TestCard(client::FrameSize size);
  client::FrameSize size() const override { return size_; }
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;

 private:
  client::FrameSize size_;
  std::vector<std::uint8_t> wide_;  // bars and pattern, twice as wide as the picture
  std::vector<std::uint8_t> frame_;
};

}  // namespace lumora::tools
