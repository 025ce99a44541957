#pragma once

#include <atomic>
#include <memory>

#include "base/picture_memory.h"
#include "platform/compression.h"

namespace lumora {

// A pool of equal buffers, BGRA in picture memory or wrapped around pictures of the same size. It
// counts them; the memory is the picture pool's to keep. Buffers may outlive the pool. Any thread.
class MemoryPixelBufferPool final : public PixelBufferPool {
 public:
  // What `create` and `wrap` answer when `threshold` buffers are in use.
  static constexpr Status thresholdExceeded = -6689;

  MemoryPixelBufferPool(std::int64_t width, std::int64_t height,
                        std::shared_ptr<PicturePool> pictures);
  Status create(int threshold, std::shared_ptr<PixelBuffer>& buffer) override;
  Status wrap(const BufferPicture& picture, std::shared_ptr<const void> owner, int threshold,
              std::shared_ptr<PixelBuffer>& buffer) override;

 private:
  std::int64_t width_;
  std::int64_t height_;
  std::int64_t stride_;
  std::shared_ptr<PicturePool> pictures_;
  std::shared_ptr<std::atomic<int>> inUse_ = std::make_shared<std::atomic<int>>(0);
};

// A buffer outside any pool, its memory touched: 0 or an errno, negative.
Status makeGreyBuffer(std::int64_t width, std::int64_t height,
                      const std::shared_ptr<PicturePool>& pictures,
                      std::shared_ptr<PixelBuffer>& buffer);

}  // namespace lumora
