#include "codec/memory_pixel_buffers.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace lumora {
namespace {

constexpr std::int64_t alignment = 64;  // bytes, of every row

// One of the buffers in use, for as long as it lives.
class Use {
 public:
  Use(std::shared_ptr<std::atomic<int>> inUse, int threshold)
      : inUse_(std::move(inUse)), within_(inUse_->fetch_add(1) < threshold) {}
  ~Use() {
    if (inUse_) --*inUse_;
  }
  Use(Use&&) = default;
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;
  Use& operator=(Use&&) = delete;

  bool isWithinThreshold() const { return within_; }

 private:
  std::shared_ptr<std::atomic<int>> inUse_;
  bool within_;
};

// `owner` holds the picture; what it holds is given back before the buffer counts as free.
class Buffer final : public PixelBuffer {
 public:
  Buffer(Use use, const BufferPicture& picture, MutableImageView memory,
         std::shared_ptr<const void> owner)
      : use_(std::move(use)), picture_(picture), memory_(memory), owner_(std::move(owner)) {}

  BufferPicture picture() override { return picture_; }
  MutableImageView memory() override { return memory_; }

 private:
  Use use_;
  BufferPicture picture_;
  MutableImageView memory_;
  std::shared_ptr<const void> owner_;
};

}  // namespace

MemoryPixelBufferPool::MemoryPixelBufferPool(std::int64_t width, std::int64_t height,
                                             std::shared_ptr<PicturePool> pictures)
    : width_(width),
      height_(height),
      stride_((width * 4 + alignment - 1) / alignment * alignment),
      pictures_(std::move(pictures)) {}

Status MemoryPixelBufferPool::create(int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  Use use(inUse_, threshold);
  if (!use.isWithinThreshold()) return thresholdExceeded;
  std::shared_ptr<std::uint8_t[]> pixels =
      pictures_->allocate(static_cast<std::size_t>(stride_ * height_));
  if (!pixels) return -ENOMEM;
  const BufferPicture picture{{pixels.get(), width_, height_, stride_}, ChannelOrder::bgra};
  const MutableImageView memory{pixels.get(), width_, height_, stride_};
  buffer = std::make_shared<Buffer>(std::move(use), picture, memory, std::move(pixels));
  return 0;
}

Status MemoryPixelBufferPool::wrap(const BufferPicture& picture, std::shared_ptr<const void> owner,
                                   int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  if (picture.view.width != width_ || picture.view.height != height_) return 0;
  Use use(inUse_, threshold);
  if (!use.isWithinThreshold()) return thresholdExceeded;
  buffer = std::make_shared<Buffer>(std::move(use), picture,
                                    MutableImageView{nullptr, width_, height_, stride_},
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
