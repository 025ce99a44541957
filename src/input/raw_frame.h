#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "base/picture_memory.h"

namespace lumora {

class FrameBufferPool;

// Memory for one raw frame, aligned for SIMD and never cleared. It goes back to its pool when its
// owner lets go.
class FrameBuffer {
 public:
  FrameBuffer() = default;
  FrameBuffer(PictureMemory memory, std::size_t capacity, std::weak_ptr<FrameBufferPool> pool);
  ~FrameBuffer();
  FrameBuffer(FrameBuffer&& other) noexcept;
  FrameBuffer& operator=(FrameBuffer&& other) noexcept;
  FrameBuffer(const FrameBuffer&) = delete;
  FrameBuffer& operator=(const FrameBuffer&) = delete;

  std::uint8_t* data() const { return memory_.get(); }
  std::size_t capacity() const { return capacity_; }

 private:
  PictureMemory memory_;
  std::size_t capacity_ = 0;
  std::weak_ptr<FrameBufferPool> pool_;
};

// Recycles frame buffers, so that a steady stream touches the same few megabytes. Any thread.
class FrameBufferPool : public std::enable_shared_from_this<FrameBufferPool> {
 public:
  // A buffer of at least `size` bytes.
  FrameBuffer take(std::size_t size);

 private:
  friend class FrameBuffer;
  struct Block {
    PictureMemory memory;
    std::size_t capacity = 0;
  };
  // One frame is in flight while the next is read: more blocks than that are never idle.
  static constexpr std::size_t maximumIdle = 2;

  void give(Block block);

  std::mutex mutex_;
  std::vector<Block> idle_;
};

// One admitted camera frame.
struct RawFrame {
  std::int64_t width = 0;   // pixels
  std::int64_t height = 0;  // pixels
  std::uint64_t id = 0;     // above 0, strictly increasing
  FrameBuffer rgba;         // width × height × 4 bytes, the bottom row of the picture first
  double capturedAt = 0;    // uptime seconds at admission
};

}  // namespace lumora
