#pragma once

#include <cstdint>
#include <mutex>
#include <utility>

namespace lumora {

// Admits one raw frame at a time. The reader's thread and the state queue share it: each call takes
// the lock for itself and for nothing else.
class RawAdmission {
 public:
  // Whether the frame may come in. If not it counts as dropped.
  bool admit() {
    const std::lock_guard hold(admission_);
    if (rawBusy_) ++droppedRaw_;
    return !std::exchange(rawBusy_, true);
  }
  // The frame in flight has left.
  void release() {
    const std::lock_guard hold(admission_);
    rawBusy_ = false;
  }
  // Nobody needs an admitted frame.
  void countDropped() {
    const std::lock_guard hold(admission_);
    ++droppedRaw_;
  }

  struct Figures {
    bool rawBusy = false;  // a frame is in flight
    std::uint64_t droppedRaw = 0;
  };
  Figures figures() const {
    const std::lock_guard hold(admission_);
    return {rawBusy_, droppedRaw_};
  }
  bool isBusy() const { return figures().rawBusy; }

 private:
  mutable std::mutex admission_;  // guards the rest
  bool rawBusy_ = false;
  std::uint64_t droppedRaw_ = 0;
};

}  // namespace lumora
