#include "input/raw_frame.h"

#include <new>
#include <utility>

namespace lumora {
FrameBuffer::FrameBuffer(PictureMemory memory, std::size_t capacity,
                         std::weak_ptr<FrameBufferPool> pool)
    : memory_(std::move(memory)), capacity_(capacity), pool_(std::move(pool)) {}

FrameBuffer::~FrameBuffer() {
  if (!memory_) return;
  if (const auto pool = pool_.lock()) pool->give({std::move(memory_), capacity_});
}

FrameBuffer::FrameBuffer(FrameBuffer&& other) noexcept
    : memory_(std::move(other.memory_)),
      capacity_(std::exchange(other.capacity_, 0)),
      pool_(std::move(other.pool_)) {}

FrameBuffer& FrameBuffer::operator=(FrameBuffer&& other) noexcept {
  std::swap(memory_, other.memory_);
  std::swap(capacity_, other.capacity_);
  std::swap(pool_, other.pool_);
  return *this;
}

FrameBuffer FrameBufferPool::take(std::size_t size) {
  Block block;
  {
    const std::lock_guard hold(mutex_);
    if (!idle_.empty()) {
      block = std::move(idle_.back());
      idle_.pop_back();
    }
  }
  // A block of another camera size is replaced, not kept beside the new one.
  if (block.capacity < size) block = {allocatePicture(size), size};
  if (!block.memory) throw std::bad_alloc();
  return {std::move(block.memory), block.capacity, weak_from_this()};
}

void FrameBufferPool::give(Block block) {
  const std::lock_guard hold(mutex_);
  if (idle_.size() < maximumIdle) idle_.push_back(std::move(block));
}

}  // namespace lumora
