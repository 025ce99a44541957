#pragma once

// Where frames come from, and how they go to the helper.

#include <lumora/helper.h>
#include "tools/programs.h"

namespace lumora::tools {

// The format of pictures from ffmpeg. It is YUV, as the pictures of most cameras are, so no picture
// is converted to RGB and back.
inline constexpr client::FrameFormat nv12BT709{.encoding = client::FrameEncoding::nv12,
                                               .matrix = client::ColourMatrix::bt709};

// ffmpeg's filters that fit pictures into `size`, between black bars, and make them `nv12BT709`.
std::string nv12Filters(client::FrameSize size);

class FrameSource {
 public:
  virtual ~FrameSource() = default;
  virtual client::FrameSize size() const = 0;
  // The format of the frames; by default RGBA, the bottom row first.
  virtual client::FrameFormat format() const { return {}; }
  // Whether `next` waits until a frame is captured, as a camera does.
  virtual bool keepsTime() const { return false; }
  // Whether some frames flash, and whether the frame of this number does. `Beeps` makes the sound
  // for a flash.
  virtual bool canFlash() const { return false; }
  virtual bool flashes(std::uint64_t) const { return false; }
  // Returns frame `number`, the first being 1. A test card shows `seconds` on it. Empty after the
  // last frame. Valid until the next call.
  virtual std::span<const std::uint8_t> next(std::uint64_t number, double seconds) = 0;
  // Ends the wait of another thread in `next`, which then returns no frame. Later calls return
  // none, too. A source that never waits need not do anything.
  virtual void stop() {}
};

// A moving test card: colour bars and a fine pattern that scroll, a clock that tells frames apart,
// and a box that is black, but white in three frames of each second. Below six frames a second, the
// box is white in at most half of the frames.
// Drawing the card costs little CPU time, so it does not distort measurements of the helper.
class TestCard final : public FrameSource {
 public:
  explicit TestCard(client::FrameSize size, int framesPerSecond = 60);
  client::FrameSize size() const override { return size_; }
  bool canFlash() const override { return true; }
  bool flashes(std::uint64_t number) const override;
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;

 private:
  client::FrameSize size_;
  std::uint64_t framesPerSecond_;
  std::vector<std::uint8_t> wide_;  // bars and pattern, twice as wide as the picture
  std::vector<std::uint8_t> frame_;
};

// Frames that a program writes to its standard output.
class CommandSource final : public FrameSource {
 public:
  // Throws what the constructor of CommandPipe throws.
  CommandSource(const std::string& command, client::FrameSize size,
                const client::FrameFormat& format, bool keepsTime = false);
  client::FrameSize size() const override { return size_; }
  client::FrameFormat format() const override { return format_; }
  bool keepsTime() const override { return keepsTime_; }
  std::span<const std::uint8_t> next(std::uint64_t number, double seconds) override;
  void stop() override { pipe_.stop(); }

 private:
  client::FrameSize size_;
  client::FrameFormat format_;
  bool keepsTime_;
  CommandPipe pipe_;
  std::vector<std::uint8_t> frame_;
};

// What a camera is asked for, besides the rate. The camera gives the nearest size and rate that it
// has. A size or format that is left empty is not asked for.
struct CameraWish {
  std::optional<client::FrameSize> size = {};
  std::string format = {};  // as ffmpeg names it, for example "mjpeg"
};

// Opens the video file or camera that the environment variable INPUT names, or a test card if it is
// not set. A file plays in a loop. ffmpeg scales the picture to fit `size`.
std::unique_ptr<FrameSource> openInput(client::FrameSize size, int framesPerSecond,
                                       const CameraWish& wish = {});

// Returns `options` with the frame size and format of `source`.
client::HelperOptions helperFor(const FrameSource& source, client::HelperOptions options);

// Returns the transport that the environment variable FRAMES names, "memory" or "pipe", or
// `fallback` if it is not set. Throws std::runtime_error for anything else.
client::FrameTransport frameTransport(
    client::FrameTransport fallback = client::FrameTransport::memory);

}  // namespace lumora::tools
