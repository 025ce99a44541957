#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <lumora/export.h>
#include <lumora/frame_format.h>

namespace lumora::client {

// Turns an RGBA picture upside down, in place. A format with `FirstRow::top` makes this
// unnecessary. Throws std::invalid_argument unless the pixels fit the size.
LUMORA_CLIENT_EXPORT void flipRows(std::span<std::uint8_t> rgba, FrameSize size);

// A plane of a frame, in bytes.
struct FramePlane {
  std::uint8_t* samples = nullptr;
  std::ptrdiff_t stride = 0;  // from row to row
  int rows = 0;
  std::size_t rowBytes = 0;
};

// A plane of a picture to be copied, from `samples` on. A negative stride turns it upside down.
struct SourcePlane {
  const std::uint8_t* samples = nullptr;  // the first row to be copied
  std::ptrdiff_t stride = 0;              // bytes from row to row
};

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

  const FrameFormat& format() const { return format_; }
  FrameSize size() const { return size_; }
  // The whole picture without padding: for RGBA red, green, blue, alpha of each pixel. For mjpeg
  // the room that it has. Empty once the frame is published.
  std::span<std::uint8_t> pixels() const;
  // The same memory by planes. None for mjpeg.
  std::vector<FramePlane> planes() const;
  // How many bytes the picture has. Needed for mjpeg, before the frame is published. Throws
  // std::invalid_argument for a length that the format does not have.
  void setLength(std::size_t bytes);

  // Copies a picture with any strides. Throws std::invalid_argument for another number of planes,
  // for mjpeg, and once the frame is published.
  void copyFrom(std::span<const SourcePlane> picture);
  // Copies a picture without padding, and sets its length. Throws as `setLength`.
  void copyFrom(std::span<const std::uint8_t> picture);

 private:
  friend class ChildProcess;
  friend class Feeder;
  friend class FrameSlots;
  Frame(FrameFormat format, FrameSize size, std::unique_ptr<Loan> loan);

  FrameFormat format_;
  FrameSize size_;
  std::size_t length_;  // 0: not set yet
  std::unique_ptr<Loan> loan_;
};

// What became of an application's frames.
struct FrameCounts {
  std::uint64_t written = 0;  // to the helper
  // Every slot was busy, a newer frame replaced them, or the helper had ended.
  std::uint64_t dropped = 0;
};

}  // namespace lumora::client
