#pragma once

#include <cstdint>
#include <mutex>

namespace lumora {

// Admission of raw frames, one in flight at a time. Here the reader's thread and the state queue
// share state: each call holds the lock for itself and for nothing else.
class RawAdmission {
 public:
  // Whether the frame may come in; if not it counts as dropped.
  bool admit();
  // The frame in flight has left.
  void release();
  // A frame that was let in is needed by nobody.
  void countDropped();

  struct Figures {
    bool rawBusy = false;  // a frame is in flight
    std::uint64_t droppedRaw = 0;
  };
  Figures figures() const;
  bool isBusy() const { return figures().rawBusy; }

 private:
  mutable std::mutex admission_;  // guards the rest
  bool rawBusy_ = false;
  std::uint64_t droppedRaw_ = 0;
};

}  // namespace lumora
