#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <lumora/export.h>

namespace lumora::client {

struct FrameSize {
  int width = 0;   // pixels, even
  int height = 0;  // pixels, even
  std::size_t bytes() const {
    return static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  }
  bool operator==(const FrameSize&) const = default;
};

// Turns a picture upside down, in place: the helper wants the bottom row first, most cameras
// deliver the top row first. Throws std::invalid_argument unless the pixels fit the size.
LUMORA_CLIENT_EXPORT void flipRows(std::span<std::uint8_t> rgba, FrameSize size);

// Memory of a helper to render a frame into (see helper.h). The helper gets it back when the frame
// is published or destroyed. May outlive the helper.
class LUMORA_CLIENT_EXPORT Frame {
 public:
  class Loan;

  ~Frame();
  Frame(Frame&& other) noexcept;
  Frame& operator=(Frame&& other) noexcept;
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  FrameSize size() const { return size_; }
  // Red, green, blue, alpha of each pixel, the bottom row first; empty once it is published.
  std::span<std::uint8_t> pixels() const;

 private:
  friend class ChildProcess;
  friend class Feeder;
  friend class FrameSlots;
  Frame(FrameSize size, std::unique_ptr<Loan> loan);

  FrameSize size_;
  std::unique_ptr<Loan> loan_;
};

// What became of an application's frames.
struct FrameCounts {
  std::uint64_t written = 0;  // to the helper
  // Every slot was busy, a newer frame replaced them, or the helper had ended.
  std::uint64_t dropped = 0;
};

}  // namespace lumora::client
