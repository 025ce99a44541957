#include "system/inherited_frame_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#ifdef __linux__
#include <sys/statfs.h>
#endif
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <new>
#include <utility>

#include "base/bytes.h"
#include "system/release_order.h"

namespace lumora {
namespace {

using ReleaseWord = std::uint64_t;  // in the machine's byte order
static_assert(std::atomic_ref<ReleaseWord>::is_always_lock_free);

bool canShrink([[maybe_unused]] int descriptor) {
#ifdef F_GET_SEALS
  const int seals = fcntl(descriptor, F_GET_SEALS);
  return seals < 0 || (seals & F_SEAL_SHRINK) == 0;
#else
  return true;
#endif
}

// Their pages can be gone, once somebody has punched holes, whatever the seals say.
bool isOfHugePages([[maybe_unused]] int descriptor) {
#ifdef __linux__
  constexpr std::uint32_t magic = 0x958458f6;  // HUGETLBFS_MAGIC of the kernel's magic.h
  struct statfs system {};
  return fstatfs(descriptor, &system) == 0 && static_cast<std::uint32_t>(system.f_type) == magic;
#else
  return false;
#endif
}

// Pictures are read where they lie, whichever thread reads them last.
class MappedMemory final : public FrameMemory, public std::enable_shared_from_this<MappedMemory> {
 public:
  MappedMemory(std::uint8_t* memory, std::uint64_t size) : memory_(memory), size_(size) {
    release(0);
  }
  ~MappedMemory() override { munmap(memory_, size_); }
  MappedMemory(const MappedMemory&) = delete;
  MappedMemory& operator=(const MappedMemory&) = delete;

  std::uint64_t size() const override { return size_; }
  std::shared_ptr<const std::uint8_t[]> pixels(std::uint64_t id, std::uint64_t offset,
                                               std::size_t) override {
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
  std::mutex mutex_;  // guards the order, and keeps the word from going back
  ReleaseOrder order_;
};

class FileMemory final : public FrameMemory {
 public:
  FileMemory(int descriptor, std::uint64_t size, std::shared_ptr<PicturePool> pictures)
      : descriptor_(descriptor), size_(size), pictures_(std::move(pictures)) {
    release(0);
  }

  std::uint64_t size() const override { return size_; }
  std::shared_ptr<const std::uint8_t[]> pixels(std::uint64_t id, std::uint64_t offset,
                                               std::size_t bytes) override {
    PictureMemory picture = pictures_->allocate(bytes);
    if (!picture) throw std::bad_alloc();
    if (!read({picture.get(), bytes}, static_cast<off_t>(offset))) return nullptr;
    release(id);
    return picture;
  }

 private:
  bool read(MutableByteView space, off_t offset) const {
    while (!space.empty()) {
      const ssize_t count = pread(descriptor_, space.data(), space.size(), offset);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return false;
      offset += count;
      space = space.subspan(static_cast<std::size_t>(count));
    }
    return true;
  }

  // A file that takes no write costs the parent its slots, not us.
  void release(ReleaseWord id) const {
    ssize_t count = -1;
    do {
      count = pwrite(descriptor_, &id, sizeof id, 0);
    } while (count < 0 && errno == EINTR);
  }

  const int descriptor_;
  const std::uint64_t size_;
  const std::shared_ptr<PicturePool> pictures_;
};

std::shared_ptr<FrameMemory> mapMemory(int descriptor, std::uint64_t size) {
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (memory == MAP_FAILED) return nullptr;
  return std::make_shared<MappedMemory>(static_cast<std::uint8_t*>(memory), size);
}

}  // namespace

std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor,
                                                std::shared_ptr<PicturePool> pictures) {
  if (descriptor <= STDERR_FILENO || isOfHugePages(descriptor)) return nullptr;
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) != O_RDWR || (flags & O_APPEND) != 0) return nullptr;
  const bool isMapped = !canShrink(descriptor);  // from here on its size holds, too
  struct stat file {};
  if (fstat(descriptor, &file) != 0 || !S_ISREG(file.st_mode)) return nullptr;
  const auto size = static_cast<std::uint64_t>(file.st_size);
  if (size < 2 * framePageBytes) return nullptr;
  if (isMapped) return mapMemory(descriptor, size);
  return std::make_shared<FileMemory>(descriptor, size, std::move(pictures));
}

}  // namespace lumora
