#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/frame_memory.h"

namespace lumora {

// Maps the memory behind an inherited descriptor. Null unless it is at least two pages of readable
// and writable memory that is sealed against shrinking (F_SEAL_SHRINK): a parent that shrinks it
// would raise SIGBUS in us. Standard streams and hugetlbfs files are refused.
std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor);

// Computes the release word: the parent may overwrite all frames up to this id. A frame that is
// done waits for earlier frames that are still read.
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
    std::uint64_t latest;  // the latest done frame that waits for this one, else `id`
  };
  std::vector<Frame> frames_;  // those that are still read
};

}  // namespace lumora
