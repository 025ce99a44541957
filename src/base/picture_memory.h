#pragma once

// Memory for whole pictures, in huge pages where the system has them: a picture of 8 MB then costs
// a few page faults when it is first touched instead of two thousand, and whatever goes over
// memory page by page in the background is soon done with it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace lumora {

class PicturePool;

struct ReturnPicture {
  std::size_t size = 0;
  std::shared_ptr<PicturePool> pool = {};
  void operator()(std::uint8_t* memory) const;
};
using PictureMemory = std::unique_ptr<std::uint8_t[], ReturnPicture>;

// Recycles pictures: raw frames, encoder buffers and encoder pictures come from here, so a steady
// stream touches the same few megabytes, and a take that starts finds memory that the last one, or
// the warming up, has touched. Pictures may outlive their owner's reference to the pool. Any
// thread.
class PicturePool : public std::enable_shared_from_this<PicturePool> {
 public:
  static std::shared_ptr<PicturePool> make();
  ~PicturePool();
  PicturePool(const PicturePool&) = delete;
  PicturePool& operator=(const PicturePool&) = delete;

  // Memory for a picture of `size` bytes, aligned for SIMD and never cleared; null when there is
  // none.
  PictureMemory allocate(std::size_t size);

 private:
  friend struct ReturnPicture;
  struct Idle {
    std::size_t size;
    std::uint8_t* memory;
  };

  PicturePool();
  std::uint8_t* takeIdle(std::size_t size);
  void give(std::size_t size, std::uint8_t* memory);

  std::mutex mutex_;
  std::vector<Idle> idle_;  // the longest idle first
};

}  // namespace lumora
