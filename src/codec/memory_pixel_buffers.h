#pragma once

#include <memory>

#include "platform/compression.h"

namespace lumora {

// A pool of equal BGRA buffers in system memory. Buffers are allocated on demand, reused, and may
// outlive the pool. Any thread.
class MemoryPixelBufferPool final : public PixelBufferPool {
 public:
  // What `create` answers when `threshold` buffers are in use.
  static constexpr Status thresholdExceeded = -6689;

  MemoryPixelBufferPool(std::int64_t width, std::int64_t height);
  Status create(int threshold, std::shared_ptr<PixelBuffer>& buffer) override;

 private:
  struct Shared;
  class Buffer;
  std::shared_ptr<Shared> shared_;
};

}  // namespace lumora
