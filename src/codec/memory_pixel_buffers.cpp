#include "codec/memory_pixel_buffers.h"

#include <cerrno>
#include <mutex>
#include <utility>
#include <vector>

#include "base/picture_memory.h"

namespace lumora {
namespace {

constexpr std::int64_t alignment = 64;  // bytes, of every row

}  // namespace

struct MemoryPixelBufferPool::Shared {
  std::int64_t width;
  std::int64_t height;
  std::int64_t stride;
  std::mutex mutex;
  int inUse = 0;
  std::vector<PictureMemory> idle;

  PictureMemory take() {
    if (idle.empty()) {
      return allocatePicture(static_cast<std::size_t>(stride * height));
    }
    PictureMemory memory = std::move(idle.back());
    idle.pop_back();
    return memory;
  }
};

// Gives its memory back to the pool at its end.
class MemoryPixelBufferPool::Buffer final : public PixelBuffer {
 public:
  Buffer(std::shared_ptr<Shared> shared, PictureMemory memory)
      : shared_(std::move(shared)), memory_(std::move(memory)) {}
  ~Buffer() override {
    const std::lock_guard hold(shared_->mutex);
    --shared_->inUse;
    shared_->idle.push_back(std::move(memory_));
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  MutableImageView lock() override {
    return {memory_.get(), shared_->width, shared_->height, shared_->stride};
  }
  void unlock() override {}

 private:
  std::shared_ptr<Shared> shared_;
  PictureMemory memory_;
};

MemoryPixelBufferPool::MemoryPixelBufferPool(std::int64_t width, std::int64_t height)
    : shared_(std::make_shared<Shared>()) {
  shared_->width = width;
  shared_->height = height;
  shared_->stride = (width * 4 + alignment - 1) / alignment * alignment;
}

Status MemoryPixelBufferPool::create(int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  const std::lock_guard hold(shared_->mutex);
  if (shared_->inUse >= threshold) return thresholdExceeded;
  PictureMemory memory = shared_->take();
  if (!memory) return -ENOMEM;
  ++shared_->inUse;
  buffer = std::make_shared<Buffer>(shared_, std::move(memory));
  return 0;
}

}  // namespace lumora
