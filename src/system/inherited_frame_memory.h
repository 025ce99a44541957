#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/frame_memory.h"

namespace lumora {

// Maps the memory behind an inherited descriptor. Returns null unless the memory has at least two
// pages, is readable and writable, and is sealed against shrinking (F_SEAL_SHRINK). Without the
// seal, a parent that shrinks the memory would raise SIGBUS in us. Standard streams and hugetlbfs
// files are refused.
std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor);

// Computes the release word: the id of the latest released frame. A frame that is no longer read is
// done. Once all earlier frames are done, too, it is released: the parent may overwrite it.
class ReleaseOrder {
 public:
  ReleaseOrder() { frames_.reserve(8); }  // at most 8 frames are read at once
  // Frame `id` is read from now on. Each call has a higher id than the last one.
  void begin(std::uint64_t id);
  // Frame `id` is no longer read. Returns the release word if it has changed. Never throws.
  std::optional<std::uint64_t> end(std::uint64_t id);

 private:
  struct Frame {
    std::uint64_t id;
    // The release word once this frame is released: the id of the last frame before the next one
    // that is still being read, or of the last frame begun if none is. `id`, if there is no frame
    // in between.
    std::uint64_t latest;
  };
  std::vector<Frame> frames_;  // still being read
};

}  // namespace lumora
