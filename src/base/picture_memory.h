#pragma once

// Memory for whole pictures, in huge pages where the system has them: a picture of 8 MB then costs
// a few page faults when it is first touched instead of two thousand, and whatever goes over
// memory page by page in the background is soon done with it. A few freed pictures are kept, so
// that a take that starts finds memory that the last one, or the warming up, has touched.

#include <cstddef>
#include <cstdint>
#include <memory>

namespace lumora {

struct FreePicture {
  std::size_t size = 0;  // bytes
  void operator()(std::uint8_t* memory) const;
};
using PictureMemory = std::unique_ptr<std::uint8_t, FreePicture>;

// At least `size` bytes, aligned to 64; null when there are none. Any thread.
PictureMemory allocatePicture(std::size_t size);

}  // namespace lumora
