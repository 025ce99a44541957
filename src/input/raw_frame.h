#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <utility>

#include "platform/image.h"

namespace lumora {

// One camera frame.
struct RawFrame {
  std::int64_t width = 0;   // pixels
  std::int64_t height = 0;  // pixels
  std::uint64_t id = 0;     // above 0, strictly increasing
  // The memory of `picture`: by default RGBA, the bottom row first. Null if there is nothing to
  // encode: the frame could not be decoded, or nobody needed it.
  std::shared_ptr<const std::uint8_t[]> rgba = {};
  double capturedAt = 0;  // uptime seconds when the reader had read it
  PictureView picture = {};
};

// The picture of a frame record, before it is decoded.
struct RecordPicture {
  std::shared_ptr<const std::uint8_t[]> memory;
  std::size_t length = 0;  // bytes
  bool isShared = false;   // the parent shares `memory` with us
};

// Admits one raw frame at a time and counts those that are dropped. Any thread.
class RawAdmission {
 public:
  // Whether the frame may be encoded. Drops it when another one is in flight.
  bool admit() {
    const bool wasBusy = isBusy_.exchange(true);
    if (wasBusy) countDropped();
    return !wasBusy;
  }
  // The frame in flight has been encoded or dropped.
  void release() { isBusy_ = false; }
  void countDropped() { ++dropped_; }
  // Sets whether somebody may need the frames that are read from now on. Unneeded ones are not
  // decoded. While a command waits, frames count as needed, because the command may start a take.
  // State queue only.
  void setNeeded(bool isNeeded) { isNeeded_ = isNeeded; }
  void commandRead() { ++commandsAhead_; }
  void commandHandled() {
    isNeeded_ = true;
    --commandsAhead_;
  }
  // Reads `commandsAhead_` first, because `commandHandled` changes it last. In the other order, a
  // frame could count as unneeded just after a command has started a take.
  bool isNeeded() const { return commandsAhead_ > 0 || isNeeded_; }

  // Whether the reader reports its dropped frames to the state queue.
  void setLogged(bool isLogged) { isLogged_ = isLogged; }
  bool isLogged() const { return commandsAhead_ > 0 || isLogged_; }

  bool isBusy() const { return isBusy_; }
  std::uint64_t dropped() const { return dropped_; }

 private:
  std::atomic<bool> isBusy_ = false;  // a frame is in flight
  std::atomic<bool> isNeeded_ = true;
  std::atomic<bool> isLogged_ = false;
  std::atomic<int> commandsAhead_ = 0;
  std::atomic<std::uint64_t> dropped_ = 0;
};

// Runs `completion` once every encode of one raw frame is done. Each encode has a token. Token 0
// belongs to the code that starts the encodes, so `completion` never runs before all of them have
// begun. State queue only.
class RawEncodingCompletion {
 public:
  explicit RawEncodingCompletion(std::function<void()> completion)
      : completion_(std::move(completion)) {}

  // A token for one more encode.
  int begin() { return *pending_.insert(nextToken_++).first; }

  // The encode of `token` is done. A second call for the same token does nothing.
  void complete(int token) {
    if (pending_.erase(token) > 0 && pending_.empty()) completion_();
  }

 private:
  std::set<int> pending_ = {0};
  int nextToken_ = 1;
  std::function<void()> completion_;
};

}  // namespace lumora
