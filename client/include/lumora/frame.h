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

// Turns a picture over, in place: the helper wants the bottom row first, most cameras deliver the
// top row first. Throws std::invalid_argument for pixels of another size.
LUMORA_CLIENT_EXPORT void flipRows(std::span<std::uint8_t> rgba, FrameSize size);

// A place to render a picture into, on loan from a helper (see helper.h). Gives itself back when it
// is not published. May outlive the helper.
class LUMORA_CLIENT_EXPORT Frame {
 public:
  class Loan;

  ~Frame();
  Frame(Frame&& other) noexcept;
  Frame& operator=(Frame&& other) noexcept;
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;

  FrameSize size() const { return size_; }
  // size().bytes() of red, green, blue, alpha, the bottom row first; none once it is published.
  std::span<std::uint8_t> pixels() const;

 private:
  friend class ChildProcess;
  friend class Feeder;
  friend class FrameSlots;
  Frame(FrameSize size, std::unique_ptr<Loan> loan);

  FrameSize size_;
  std::unique_ptr<Loan> loan_;
};

// What became of the frames of a run.
struct FrameCounts {
  std::uint64_t written = 0;
  // A newer one took their place, there was no buffer for them, or the helper had ended.
  std::uint64_t dropped = 0;
};

}  // namespace lumora::client
