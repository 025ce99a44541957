#pragma once

#include <vector>

#include "tools/frame_source.h"

namespace lumora::tools {

// A moving test card: colour bars and a fine pattern that scroll, a bouncing square, a clock and
// the frame number. Cheap to draw, so that a measurement sees the helper and not the card.
class TestCard final : public FrameSource {
 public:
  explicit TestCard(client::FrameSize size);
  client::FrameSize size() const override { return size_; }
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;

 private:
  client::FrameSize size_;
  std::vector<std::uint8_t> wide_;  // twice as wide as the picture
  std::vector<std::uint8_t> frame_;
};

}  // namespace lumora::tools
