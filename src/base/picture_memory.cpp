#include "base/picture_memory.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace lumora {
namespace {

constexpr std::size_t hugePage = std::size_t{2} << 20;
constexpr std::size_t cacheLine = 64;
constexpr std::size_t maximumKept = 4;
constexpr std::size_t largestKept = std::size_t{16} << 20;  // more would hold on to too much

// Freed pictures, the oldest first.
class Kept {
 public:
  std::uint8_t* take(std::size_t size) {
    const std::lock_guard hold(mutex_);
    const auto found = std::ranges::find(pictures_, size, &Picture::size);
    if (found == pictures_.end()) return nullptr;
    std::uint8_t* memory = found->memory;
    pictures_.erase(found);
    return memory;
  }

  // What there is no room for any more.
  std::uint8_t* give(std::size_t size, std::uint8_t* memory) {
    if (size > largestKept) return memory;
    const std::lock_guard hold(mutex_);
    pictures_.push_back({size, memory});
    if (pictures_.size() <= maximumKept) return nullptr;
    std::uint8_t* oldest = pictures_.front().memory;
    pictures_.erase(pictures_.begin());
    return oldest;
  }

 private:
  struct Picture {
    std::size_t size;
    std::uint8_t* memory;
  };
  std::mutex mutex_;
  std::vector<Picture> pictures_;
};

// Never destroyed: pictures are freed until the very end.
Kept& kept() {
  static Kept& instance = *new Kept;
  return instance;
}

}  // namespace

void FreePicture::operator()(std::uint8_t* memory) const { std::free(kept().give(size, memory)); }

PictureMemory allocatePicture(std::size_t size) {
  const std::size_t alignment = size >= hugePage ? hugePage : cacheLine;
  const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
  std::uint8_t* memory = kept().take(rounded);
  if (memory == nullptr) {
    memory = static_cast<std::uint8_t*>(std::aligned_alloc(alignment, rounded));
#ifdef MADV_HUGEPAGE
    if (memory != nullptr && alignment == hugePage) madvise(memory, rounded, MADV_HUGEPAGE);
#endif
  }
  return {memory, FreePicture{rounded}};
}

}  // namespace lumora
