#pragma once

#include <cstdint>
#include <memory>

namespace lumora {

// One admitted camera frame.
struct RawFrame {
  std::int64_t width = 0;   // pixels
  std::int64_t height = 0;  // pixels
  std::uint64_t id = 0;     // above 0, strictly increasing
  // width × height × 4 bytes, the bottom row of the picture first.
  std::shared_ptr<const std::uint8_t[]> rgba;
  double capturedAt = 0;  // uptime seconds at admission
};

}  // namespace lumora
