#include "base/picture_memory.h"

#include <algorithm>
#include <cstdlib>

#include "base/process_heap.h"

namespace lumora {
namespace {

constexpr std::size_t cacheLine = 64;
// While no frame is in flight, memory for four pictures is idle: for two raw frames, and for one
// buffer each of the preview's and the take's session.
constexpr std::size_t maximumIdle = 4;
constexpr std::size_t largestIdle = std::size_t{16} << 20;  // bytes; larger pictures are freed

}  // namespace

// Reserved so that `give` never allocates.
PicturePool::PicturePool() { idle_.reserve(maximumIdle + 1); }

std::shared_ptr<PicturePool> PicturePool::make() {
  return std::shared_ptr<PicturePool>(new PicturePool);
}

PicturePool::~PicturePool() {
  for (const Idle& picture : idle_) std::free(picture.memory);
}

PictureMemory PicturePool::allocate(std::size_t size) {
  const std::size_t alignment = size >= hugePage ? hugePage : cacheLine;
  const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
  std::uint8_t* memory = takeIdle(rounded);
  if (memory == nullptr) {
    memory = static_cast<std::uint8_t*>(std::aligned_alloc(alignment, rounded));
    if (memory == nullptr) return nullptr;
    useHugePages(memory, rounded);
  }
  return {memory, [pool = shared_from_this(), rounded](std::uint8_t* unused) {
            pool->give(rounded, unused);
          }};
}

std::uint8_t* PicturePool::takeIdle(std::size_t size) {
  const std::lock_guard hold(mutex_);
  const auto found = std::ranges::find(idle_, size, &Idle::size);
  if (found == idle_.end()) return nullptr;
  std::uint8_t* memory = found->memory;
  idle_.erase(found);
  return memory;
}

void PicturePool::give(std::size_t size, std::uint8_t* memory) {
  if (size > largestIdle) return std::free(memory);
  std::unique_lock hold(mutex_);
  idle_.push_back({size, memory});
  if (idle_.size() <= maximumIdle) return;
  std::uint8_t* const oldest = idle_.front().memory;
  idle_.erase(idle_.begin());
  hold.unlock();
  std::free(oldest);
}

}  // namespace lumora
