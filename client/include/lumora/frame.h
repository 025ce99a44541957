#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include <lumora/export.h>
#include <lumora/frame_format.h>

namespace lumora::client {

// Turns an RGBA picture upside down, in place. By default the helper wants its bottom row first.
// With `FirstRow::top` in the format, pictures whose top row comes first need no flip. Throws
// std::invalid_argument if the number of bytes does not match the size.
LUMORA_CLIENT_EXPORT void flipRows(std::span<std::uint8_t> rgba, FrameSize size);

// A plane of a frame.
struct FramePlane {
  std::uint8_t* samples = nullptr;
  std::ptrdiff_t stride = 0;  // bytes from row to row
  int rows = 0;
  std::size_t rowBytes = 0;
};

// A plane of a picture that is copied into a frame. A negative stride turns it upside down.
struct SourcePlane {
  const std::uint8_t* samples = nullptr;  // the row that is copied first
  std::ptrdiff_t stride = 0;              // bytes from row to row
};

// A helper's buffer, into which the application renders a frame (see helper.h). The helper gets the
// buffer back when the frame is published or destroyed. A frame may outlive its helper.
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
  // The memory for the picture, without padding. For RGBA a pixel is red, green, blue, alpha. For
  // mjpeg this is the room for the largest picture. Empty once the frame is published.
  std::span<std::uint8_t> pixels() const;
  // The planes in this memory. None for mjpeg.
  std::vector<FramePlane> planes() const;
  // Sets the length of the picture in bytes. An mjpeg frame needs a length before it is published.
  // Throws std::invalid_argument if no picture of this format and size has this length, or if the
  // frame was published.
  void setLength(std::size_t bytes);

  // Copies a picture with any strides. Throws std::invalid_argument if the format is mjpeg, if
  // picture and frame differ in their number of planes, or if the frame was published.
  void copyFrom(std::span<const SourcePlane> picture);
  // Copies a picture without padding, and sets its length. Throws what `setLength` throws.
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

// How many frames of the application were written and dropped.
struct FrameCounts {
  std::uint64_t written = 0;  // to the helper
  // Reasons: every slot was busy, a newer frame replaced the frame, or the helper was not ready,
  // was stopping or had ended.
  std::uint64_t dropped = 0;
};

}  // namespace lumora::client
