#include "codec/memory_pixel_buffers.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace lumora {
namespace {

constexpr std::int64_t alignment = 64;       // bytes, of every row
constexpr Status thresholdExceeded = -6689;  // `threshold` buffers are in use

// Members are destroyed in reverse: the picture is released before the buffer counts as free.
class Buffer final : public PixelBuffer {
 public:
  Buffer(std::shared_ptr<const void> use, const BufferPicture& picture, MutableImageView memory,
         std::shared_ptr<const void> owner)
      : use_(std::move(use)), picture_(picture), memory_(memory), owner_(std::move(owner)) {}

  BufferPicture picture() override { return picture_; }
  MutableImageView memory() override { return memory_; }

 private:
  std::shared_ptr<const void> use_;
  BufferPicture picture_;
  MutableImageView memory_;
  std::shared_ptr<const void> owner_;  // of the picture
};

}  // namespace

MemoryPixelBufferPool::MemoryPixelBufferPool(std::int64_t width, std::int64_t height,
                                             std::shared_ptr<PicturePool> pictures)
    : width_(width),
      height_(height),
      stride_((width * 4 + alignment - 1) / alignment * alignment),
      pictures_(std::move(pictures)),
      use_(std::make_shared<char>()) {}

// One reference is the pool's own.
bool MemoryPixelBufferPool::isExhausted(int threshold) const {
  return use_.use_count() > threshold;
}

Status MemoryPixelBufferPool::create(int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  if (isExhausted(threshold)) return thresholdExceeded;
  PictureMemory pixels = pictures_->allocate(static_cast<std::size_t>(stride_ * height_));
  if (!pixels) return -ENOMEM;
  const MutableImageView memory{pixels.get(), width_, height_, stride_};
  const BufferPicture picture{{pixels.get(), width_, height_, stride_}, ChannelOrder::bgra};
  buffer = std::make_shared<Buffer>(use_, picture, memory, std::move(pixels));
  return 0;
}

Status MemoryPixelBufferPool::wrap(const BufferPicture& picture, std::shared_ptr<const void> owner,
                                   int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  if (picture.view.width != width_ || picture.view.height != height_) return 0;
  if (isExhausted(threshold)) return thresholdExceeded;
  buffer = std::make_shared<Buffer>(use_, picture, MutableImageView{nullptr, width_, height_},
                                    std::move(owner));
  return 0;
}

Status makeGreyBuffer(std::int64_t width, std::int64_t height,
                      const std::shared_ptr<PicturePool>& pictures,
                      std::shared_ptr<PixelBuffer>& buffer) {
  constexpr int grey = 128;
  MemoryPixelBufferPool pool(width, height, pictures);
  if (const Status status = pool.create(1, buffer); status != 0) return status;
  const MutableImageView view = buffer->memory();
  std::memset(view.pixels, grey, static_cast<std::size_t>(view.stride * view.height));
  return 0;
}

}  // namespace lumora
