#include "input/release_order.h"

#include <algorithm>
#include <iterator>

namespace lumora {

void ReleaseOrder::begin(std::uint64_t id) { frames_.push_back({id, false}); }

std::optional<std::uint64_t> ReleaseOrder::end(std::uint64_t id) {
  auto frame = std::ranges::find(frames_, id, &Frame::id);
  frame->ended = true;
  // A parent may go on for ever behind a frame that is never done.
  if (const auto next = std::next(frame); next != frames_.end() && next->ended) {
    frame = frames_.erase(frame);
  }
  if (frame != frames_.begin()) {
    const auto before = std::prev(frame);
    if (before->ended) frames_.erase(before);
    return std::nullopt;
  }
  const std::uint64_t latest = frame->id;
  frames_.pop_front();
  return latest;
}

}  // namespace lumora
