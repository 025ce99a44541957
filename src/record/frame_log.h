#pragma once

// What became of each frame that was read during a take, as lines of comma-separated values in the
// order in which the frames were read. A frame may be dropped while the frame before it is still
// being encoded. The dropped frame's line then waits here for the outcome of the earlier one.

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

namespace lumora {

enum class FrameOutcome {
  written,
  throttled,  // the cadence skipped it
  beforeStart,
  afterStop,
  waitingForKeyFrame,  // an earlier frame was lost
  busy,                // another frame was in flight
  undecodable,
  encoder,  // the encoder has lost it, or has failed
  disk,     // the disk has failed, or too many samples waited for it
};

// A frame that was read.
struct ReadFrame {
  std::uint64_t id = 0;  // above the id of the frame before it
  // Uptime in seconds when the helper read the frame. In calls of `MovieRecorder::append`, the
  // result of `captureTime`.
  double capturedAt = 0;
};

// The log of one take. Any thread. If more than `mostFrames` frames would wait here, the log ends
// and is incomplete.
class FrameLog {
 public:
  static constexpr std::size_t mostFrames = 10'000;

  // Adds the next frame, and what became of it if that is known.
  void note(const ReadFrame& frame, std::optional<FrameOutcome> outcome);
  // Sets the outcome of a frame that has none. `movieTime` is where the frame begins in
  // the movie, in seconds.
  void settle(std::uint64_t id, FrameOutcome outcome, std::optional<double> movieTime = {});
  // From now on no frame is noted. Frames whose outcome is still unknown get `rest`.
  void end(FrameOutcome rest);
  // From now on no frame is noted, because one was missed.
  void giveUp();
  // The lines of the frames up to the first one without an outcome. No line is returned twice. The
  // first line of all is the header.
  std::string takeLines();
  // Whether frames are missing.
  bool isIncomplete() const;

 private:
  struct Entry {
    ReadFrame frame;
    std::optional<FrameOutcome> outcome;
    std::optional<double> movieTime = {};
  };
  static std::string lineOf(const Entry& entry);

  mutable std::mutex mutex_;  // guards everything below
  std::deque<Entry> entries_;
  bool hasHeader_ = false;
  bool hasEnded_ = false;
  bool isIncomplete_ = false;
};

}  // namespace lumora
