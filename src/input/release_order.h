#pragma once

#include <cstdint>
#include <deque>
#include <optional>

namespace lumora {

// In which order frames are done with, told as one number: the latest frame that, like all before
// it, is no longer read. A frame that was dropped while the one before it is still read has to
// wait.
class ReleaseOrder {
 public:
  // Frames begin by growing ids.
  void begin(std::uint64_t id);
  // The new latest frame that is free with all before it, if that has changed. Never throws.
  std::optional<std::uint64_t> end(std::uint64_t id);

 private:
  struct Frame {
    std::uint64_t id;
    bool ended;
  };
  // Since the oldest that is still read; of ended ones in a row, the last.
  std::deque<Frame> frames_;
};

}  // namespace lumora
