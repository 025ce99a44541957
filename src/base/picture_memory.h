#pragma once

// Memory for whole pictures, in huge pages where the system has them. The first touch of a picture
// of 8 MB then costs a few page faults instead of two thousand.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace lumora {

// The last reference gives the memory back to its pool.
using PictureMemory = std::shared_ptr<std::uint8_t[]>;

// Recycles the memory of raw frames, encoder buffers and encoder pictures. A steady stream touches
// the same few megabytes, and a new take gets memory that was touched before. Each picture keeps
// its pool alive. Any thread.
class PicturePool : public std::enable_shared_from_this<PicturePool> {
 public:
  static std::shared_ptr<PicturePool> make();
  ~PicturePool();
  PicturePool(const PicturePool&) = delete;
  PicturePool& operator=(const PicturePool&) = delete;

  // Memory for a picture of `size` bytes, aligned for SIMD and never cleared. Null if there is no
  // memory for the picture. Throws std::bad_alloc if there is no memory for its reference count.
  PictureMemory allocate(std::size_t size);

 private:
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
