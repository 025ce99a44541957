#include "codec/memory_pixel_buffers.h"

#include <cerrno>
#include <utility>

namespace lumora {
namespace {

constexpr std::int64_t alignment = 64;  // bytes, of every row

}  // namespace

class MemoryPixelBufferPool::Buffer final : public PixelBuffer {
 public:
  Buffer(const MemoryPixelBufferPool& pool, PictureMemory memory)
      : memory_(std::move(memory)),
        view_{memory_.get(), pool.width_, pool.height_, pool.stride_},
        inUse_(pool.inUse_) {}
  ~Buffer() override {
    memory_.reset();  // back in its pool before another one may be asked for
    --*inUse_;
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  bool show(const BufferPicture& picture, std::shared_ptr<const void> owner) override {
    if (picture.view.width != view_.width || picture.view.height != view_.height) return false;
    shown_ = picture;
    owner_ = std::move(owner);
    memory_.reset();
    view_.pixels = nullptr;
    return true;
  }
  BufferPicture picture() override {
    if (owner_) return shown_;
    return {{view_.pixels, view_.width, view_.height, view_.stride}, ChannelOrder::bgra};
  }
  MutableImageView lock() override { return view_; }
  void unlock() override {}

 private:
  PictureMemory memory_;
  MutableImageView view_;
  BufferPicture shown_;
  std::shared_ptr<const void> owner_;  // of what is shown
  std::shared_ptr<std::atomic<int>> inUse_;
};

MemoryPixelBufferPool::MemoryPixelBufferPool(std::int64_t width, std::int64_t height,
                                             std::shared_ptr<PicturePool> pictures)
    : width_(width),
      height_(height),
      stride_((width * 4 + alignment - 1) / alignment * alignment),
      pictures_(std::move(pictures)) {}

Status MemoryPixelBufferPool::create(int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  if (inUse_->fetch_add(1) >= threshold) {
    --*inUse_;
    return thresholdExceeded;
  }
  PictureMemory memory = pictures_->allocate(static_cast<std::size_t>(stride_ * height_));
  if (!memory) {
    --*inUse_;
    return -ENOMEM;
  }
  buffer = std::make_shared<Buffer>(*this, std::move(memory));
  return 0;
}

}  // namespace lumora
