#pragma once

#include <memory>

#include "base/picture_memory.h"
#include "platform/compression.h"

namespace lumora {

// A pool of equal buffers, BGRA in picture memory or wrapped around pictures of the same size. It
// only counts buffers: the picture pool recycles their memory. Buffers may outlive the pool, and
// may be released on any thread. One thread makes them.
class MemoryPixelBufferPool final : public PixelBufferPool {
 public:
  MemoryPixelBufferPool(std::int64_t width, std::int64_t height,
                        std::shared_ptr<PicturePool> pictures);
  Status create(int threshold, std::shared_ptr<PixelBuffer>& buffer) override;
  Status wrap(const BufferPicture& picture, std::shared_ptr<const void> owner, int threshold,
              std::shared_ptr<PixelBuffer>& buffer) override;

 private:
  bool isExhausted(int threshold) const;

  std::int64_t width_;
  std::int64_t height_;
  std::int64_t stride_;
  std::shared_ptr<PicturePool> pictures_;
  std::shared_ptr<const void> use_;  // every buffer has a reference while it is in use
};

// A grey buffer outside any pool, its memory touched: 0 or a negative errno.
Status makeGreyBuffer(std::int64_t width, std::int64_t height,
                      const std::shared_ptr<PicturePool>& pictures,
                      std::shared_ptr<PixelBuffer>& buffer);

}  // namespace lumora
