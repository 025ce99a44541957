#pragma once

#include <memory>

#include "base/picture_memory.h"
#include "platform/compression.h"

namespace lumora {

// A pool of buffers of one size. Each has picture memory of its own, or is wrapped around a picture
// of that size. The pool only counts buffers: the picture pool recycles their memory. Buffers may
// outlive the pool, and may be released on any thread. One thread makes them.
class MemoryPixelBufferPool final : public PixelBufferPool {
 public:
  // `frames` is the format of the frames that are wrapped, or converted into the buffers.
  MemoryPixelBufferPool(PictureSize size, const PixelFormat& frames,
                        std::shared_ptr<PicturePool> pictures);
  Status create(int threshold, Filling filling, std::shared_ptr<PixelBuffer>& buffer) override;
  Status wrap(const PictureView& picture, std::shared_ptr<const void> owner, int threshold,
              std::shared_ptr<PixelBuffer>& buffer) override;

 private:
  bool isExhausted(int threshold) const;

  PictureSize size_;
  PixelFormat format_;
  std::shared_ptr<PicturePool> pictures_;
  std::shared_ptr<const void> use_;  // counts buffers: each one in use has a copy
};

// Makes a grey buffer that no session's pool counts, and touches its memory. Returns 0 or a
// negative errno.
Status makeGreyBuffer(PictureSize size, const PixelFormat& frames,
                      const std::shared_ptr<PicturePool>& pictures,
                      std::shared_ptr<PixelBuffer>& buffer);

}  // namespace lumora
