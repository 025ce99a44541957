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
  Buffer(std::shared_ptr<const void> use, const PictureView& picture, const Picture& memory,
         std::shared_ptr<const void> owner)
      : use_(std::move(use)), picture_(picture), memory_(memory), owner_(std::move(owner)) {}

  PictureView picture() override { return picture_; }
  Picture memory() override { return memory_; }

 private:
  std::shared_ptr<const void> use_;
  PictureView picture_;
  Picture memory_;
  std::shared_ptr<const void> owner_;  // of the picture
};

// The conversion of RGB exchanges red and blue.
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

// The pool itself has one reference.
bool MemoryPixelBufferPool::isExhausted(int threshold) const {
  return use_.use_count() > threshold;
}

Status MemoryPixelBufferPool::create(int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  if (isExhausted(threshold)) return thresholdExceeded;
  PictureMemory samples = pictures_->allocate(pictureBytes(format_.layout, size_, rowAlignment));
  if (!samples) return -ENOMEM;
  const Picture memory = pictureAt(samples.get(), format_, size_, rowAlignment);
  buffer = std::make_shared<Buffer>(use_, memory, memory, std::move(samples));
  return 0;
}

Status MemoryPixelBufferPool::wrap(const PictureView& picture, std::shared_ptr<const void> owner,
                                   int threshold, std::shared_ptr<PixelBuffer>& buffer) {
  if (picture.size != size_) return 0;
  if (isExhausted(threshold)) return thresholdExceeded;
  buffer =
      std::make_shared<Buffer>(use_, picture, Picture{picture.format, size_}, std::move(owner));
  return 0;
}

Status makeGreyBuffer(PictureSize size, const PixelFormat& frames,
                      const std::shared_ptr<PicturePool>& pictures,
                      std::shared_ptr<PixelBuffer>& buffer) {
  constexpr int grey = 128;  // in RGB, in luma and in chroma
  MemoryPixelBufferPool pool(size, frames, pictures);
  if (const Status status = pool.create(1, buffer); status != 0) return status;
  const Picture picture = buffer->memory();
  std::memset(picture.planes[0].samples, grey,
              pictureBytes(picture.format.layout, size, rowAlignment));
  return 0;
}

}  // namespace lumora
