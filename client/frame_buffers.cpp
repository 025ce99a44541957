#include "client/frame_buffers.h"

#include <utility>

namespace lumora::client {

class FrameBuffers::Loan final : public Frame::Loan {
 public:
  Loan(std::shared_ptr<FrameBuffers> from, Buffer buffer)
      : from_(std::move(from)), buffer_(std::move(buffer)) {}
  ~Loan() override { from_->giveBack(std::move(buffer_)); }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;

  std::uint8_t* pixels() override { return buffer_.bytes.get(); }

 private:
  std::shared_ptr<FrameBuffers> from_;
  Buffer buffer_;
};

std::unique_ptr<Frame::Loan> FrameBuffers::lend(std::size_t bytes) {
  Buffer buffer;
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
    if (buffer.size < bytes)
      buffer = {std::make_unique_for_overwrite<std::uint8_t[]>(bytes), bytes};
    return std::make_unique<Loan>(shared_from_this(), std::move(buffer));
  } catch (const std::bad_alloc&) {
    const std::lock_guard hold(mutex_);
    --lent_;
    throw;
  }
}

void FrameBuffers::giveBack(Buffer buffer) {
  const std::lock_guard hold(mutex_);
  --lent_;
  idle_.push_back(std::move(buffer));
}

}  // namespace lumora::client
