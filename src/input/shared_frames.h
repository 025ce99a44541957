#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "input/release_order.h"
#include "platform/frame_memory.h"

namespace lumora {

// Frames that are read where they lie in the parent's memory. A frame is the parent's again when
// the last reference to its pixels goes, whichever thread that is on.
class SharedFrames : public std::enable_shared_from_this<SharedFrames> {
 public:
  explicit SharedFrames(std::shared_ptr<FrameMemory> memory) : memory_(std::move(memory)) {}

  // `pixels` of the frame `id`. Reader thread, by growing ids.
  std::shared_ptr<const std::uint8_t[]> lend(std::uint64_t id, const std::uint8_t* pixels);

 private:
  void giveBack(std::uint64_t id);

  const std::shared_ptr<FrameMemory> memory_;
  std::mutex mutex_;  // guards the order, and that what it says is told in order
  ReleaseOrder order_;
};

}  // namespace lumora
