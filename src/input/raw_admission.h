#pragma once

#include <cstdint>
#include <mutex>

namespace lumora {

// Admission of raw frames, one in flight at a time. The reader's thread and the state queue meet
// here, and only here: each call holds the lock for itself and for nothing else.
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
  Figures figures();
  bool isBusy() { return figures().rawBusy; }

 private:
  std::mutex admission;  // guards the rest
  bool rawBusy = false;
  std::uint64_t droppedRaw = 0;
};

}  // namespace lumora
