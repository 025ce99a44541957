#include "codec/memory_pixel_buffers.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace lumora {
namespace {

constexpr Status thresholdExceeded = -6689;  // `threshold` buffers are in use

// Members are destroyed in reverse: the picture is released before the buffer counts as free.
class Buffer final : public PixelBuffer {
 public:
  Buffer(std::shared_ptr<const void> use, const PictureView& picture,
         std::shared_ptr<const void> owner, const Picture& memory = {}, Filling filling = {})
      : use_(std::move(use)),
        picture_(picture),
        owner_(std::move(owner)),
        memory_(memory),
        filling_(std::move(filling)) {}

  bool fill() override {
    const Filling filling = std::exchange(filling_, nullptr);
    return !filling || filling(memory_);
  }
  PictureView picture() override { return picture_; }

 private:
  std::shared_ptr<const void> use_;
  PictureView picture_;
  std::shared_ptr<const void> owner_;  // of the picture
  Picture memory_;                     // for `filling_`; empty if the picture is wrapped
  Filling filling_;                    // null once it has run
};

// `ImageConverter` fills the buffers. In RGB it exchanges red and blue.
PixelFormat bufferFormat(PixelFormat frames) {
  if (frames.layout == PixelLayout::rgba) {
    frames.layout = PixelLayout::bgra;
  } else if (frames.layout == PixelLayout::bgra) {
    frames.layout = PixelLayout::rgba;
  }
  return frames;
}

}  // namespace

MemoryPixelBufferPool::MemoryPixelBufferPool(PictureSize size, const PixelFormat& frames,
                                             std::shared_ptr<PicturePool> pictures)
    : size_(size),
      format_(bufferFormat(frames)),
      pictures_(std::move(pictures)),
      use_(std::make_shared<char>()) {}

// Each buffer in use has a reference to `use_`, and the pool itself has one more.
bool MemoryPixelBufferPool::isExhausted(int threshold) const {
  return use_.use_count() > threshold;
}

Status MemoryPixelBufferPool::create(int threshold, Filling filling,
                                     std::shared_ptr<PixelBuffer>& buffer) {
  if (isExhausted(threshold)) return thresholdExceeded;
  PictureMemory samples = pictures_->allocate(pictureBytes(format_.layout, size_, rowAlignment));
  if (!samples) return -ENOMEM;
  const Picture memory = pictureAt(samples.get(), format_, size_, rowAlignment);
  buffer = std::make_shared<Buffer>(use_, memory, std::move(samples), memory, std::move(filling));
  return 0;
}

Status MemoryPixelBufferPool::wrap(const PictureView& picture, std::shared_ptr<const void> owner,
                                   int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  if (picture.size != size_) return 0;
  if (isExhausted(threshold)) return thresholdExceeded;
  buffer = std::make_shared<Buffer>(use_, picture, std::move(owner));
  return 0;
}

Status makeGreyBuffer(PictureSize size, const PixelFormat& frames,
                      const std::shared_ptr<PicturePool>& pictures,
                      std::shared_ptr<PixelBuffer>& buffer) {
  const auto paint = [](const Picture& memory) {
    constexpr int grey = 128;  // in RGB, in luma and in chroma
    std::memset(memory.planes[0].samples, grey,
                pictureBytes(memory.format.layout, memory.size, rowAlignment));
    return true;
  };
  const Status status = MemoryPixelBufferPool(size, frames, pictures).create(1, paint, buffer);
  if (status == 0) buffer->fill();
  return status;
}

}  // namespace lumora
