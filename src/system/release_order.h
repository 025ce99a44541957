#pragma once

#include <cstdint>
#include <optional>
#include <vector>

namespace lumora {

// In which order frames are done with, told as one number: the latest frame that, like all before
// it, is no longer read. One that is done while a frame before it is still read has to wait.
class ReleaseOrder {
 public:
  // Frames begin by growing ids.
  void begin(std::uint64_t id);
  // That number, where it has changed. Never throws.
  std::optional<std::uint64_t> end(std::uint64_t id);

 private:
  struct Frame {
    std::uint64_t id;
    std::uint64_t latest;  // itself, or the last of those behind it that are done
  };
  std::vector<Frame> frames_;  // that are still read
};

}  // namespace lumora
