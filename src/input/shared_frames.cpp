#include "input/shared_frames.h"

namespace lumora {

std::shared_ptr<const std::uint8_t[]> SharedFrames::lend(std::uint64_t id,
                                                         const std::uint8_t* pixels) {
  {
    const std::lock_guard hold(mutex_);
    order_.begin(id);
  }
  return {pixels, [self = shared_from_this(), id](const std::uint8_t*) { self->giveBack(id); }};
}

void SharedFrames::giveBack(std::uint64_t id) {
  const std::lock_guard hold(mutex_);
  if (const auto latest = order_.end(id)) memory_->release(*latest);
}

}  // namespace lumora
