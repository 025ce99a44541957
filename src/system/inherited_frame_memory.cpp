#include "system/inherited_frame_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <mutex>

namespace lumora {
namespace {

using ReleaseWord = std::uint64_t;  // in the machine's byte order
static_assert(std::atomic_ref<ReleaseWord>::is_always_lock_free);

bool canShrink(int descriptor) {
  const int seals = fcntl(descriptor, F_GET_SEALS);
  return seals < 0 || (seals & F_SEAL_SHRINK) == 0;
}

// F_SEAL_SHRINK doesn't stop a parent from punching holes into huge pages. A read of a hole raises
// SIGBUS if no huge page is free.
bool isOfHugePages(int descriptor) {
  constexpr std::uint32_t magic = 0x958458f6;  // HUGETLBFS_MAGIC of the kernel's magic.h
  struct statfs system {};
  return fstatfs(descriptor, &system) == 0 && static_cast<std::uint32_t>(system.f_type) == magic;
}

// The last reader of a picture gives it back, on whichever thread.
class MappedMemory final : public FrameMemory, public std::enable_shared_from_this<MappedMemory> {
 public:
  MappedMemory(std::uint8_t* memory, std::uint64_t size) : memory_(memory), size_(size) {
    release(0);
  }
  ~MappedMemory() override { munmap(memory_, size_); }
  MappedMemory(const MappedMemory&) = delete;
  MappedMemory& operator=(const MappedMemory&) = delete;

  std::uint64_t size() const override { return size_; }
  std::shared_ptr<const std::uint8_t[]> pixels(std::uint64_t id, std::uint64_t offset) override {
    {
      const std::lock_guard hold(mutex_);
      order_.begin(id);
    }
    return {memory_ + offset,
            [self = shared_from_this(), id](const std::uint8_t*) { self->giveBack(id); }};
  }

 private:
  void giveBack(std::uint64_t id) {
    const std::lock_guard hold(mutex_);
    if (const auto latest = order_.end(id)) release(*latest);
  }
  void release(ReleaseWord id) {
    std::atomic_ref(*reinterpret_cast<ReleaseWord*>(memory_)).store(id, std::memory_order_release);
  }

  std::uint8_t* const memory_;
  const std::uint64_t size_;
  std::mutex mutex_;  // guards `order_`; held for `release`, so that the word grows
  ReleaseOrder order_;
};

bool isReadableAndWritable(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) == O_RDWR;
}

}  // namespace

std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor) {
  if (descriptor <= STDERR_FILENO || !isReadableAndWritable(descriptor) || canShrink(descriptor) ||
      isOfHugePages(descriptor)) {
    return nullptr;
  }
  struct stat file {};
  if (fstat(descriptor, &file) != 0) return nullptr;
  const auto size = static_cast<std::uint64_t>(file.st_size);
  if (size < 2 * framePageBytes) return nullptr;
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (memory == MAP_FAILED) return nullptr;
  return std::make_shared<MappedMemory>(static_cast<std::uint8_t*>(memory), size);
}

void ReleaseOrder::begin(std::uint64_t id) { frames_.push_back({id, id}); }

std::optional<std::uint64_t> ReleaseOrder::end(std::uint64_t id) {
  const auto frame = std::ranges::find(frames_, id, &Frame::id);
  const std::uint64_t latest = frame->latest;
  const bool isFirst = frame == frames_.begin();
  if (!isFirst) std::prev(frame)->latest = latest;
  frames_.erase(frame);
  return isFirst ? std::optional(latest) : std::nullopt;
}

}  // namespace lumora
