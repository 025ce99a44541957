#include "system/release_order.h"

#include <algorithm>
#include <iterator>

namespace lumora {

void ReleaseOrder::begin(std::uint64_t id) { frames_.push_back({id, id}); }

std::optional<std::uint64_t> ReleaseOrder::end(std::uint64_t id) {
  const auto frame = std::ranges::find(frames_, id, &Frame::id);
  const std::uint64_t latest = frame->latest;
  const bool isFirst = frame == frames_.begin();
  if (!isFirst) std::prev(frame)->latest = latest;
  frames_.erase(frame);
  return isFirst ? std::optional(latest) : std::nullopt;
}

}  // namespace lumora
