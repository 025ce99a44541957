#include "client/frame_loan.h"

#include <utility>

namespace lumora::client {

std::unique_ptr<Frame::Loan> FrameBuffers::lend(std::size_t bytes) {
  std::vector<std::uint8_t> buffer;
  {
    const std::lock_guard hold(mutex_);
    if (lent_ == count) return nullptr;
    idle_.reserve(count);  // so that giving back never needs memory
    if (!idle_.empty()) {
      buffer = std::move(idle_.back());
      idle_.pop_back();
    }
    ++lent_;
  }
  try {
    buffer.resize(bytes);
    return std::make_unique<Frame::Loan>(shared_from_this(), std::move(buffer));
  } catch (const std::bad_alloc&) {
    const std::lock_guard hold(mutex_);
    --lent_;
    throw;
  }
}

void FrameBuffers::giveBack(std::vector<std::uint8_t> buffer) {
  const std::lock_guard hold(mutex_);
  --lent_;
  idle_.push_back(std::move(buffer));
}

}  // namespace lumora::client
