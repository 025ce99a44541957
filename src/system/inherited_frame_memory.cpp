#include "system/inherited_frame_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>

namespace lumora {
namespace {

constexpr std::uint64_t minimumBytes = 2 * 4096;

using ReleaseWord = std::uint64_t;  // in the machine's byte order

bool canShrink([[maybe_unused]] int descriptor) {
#ifdef F_GET_SEALS
  const int seals = fcntl(descriptor, F_GET_SEALS);
  return seals < 0 || (seals & F_SEAL_SHRINK) == 0;
#else
  return true;
#endif
}

class MappedMemory final : public FrameMemory {
 public:
  MappedMemory(int descriptor, std::uint64_t size) : size_(size) {
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) {
      throw std::system_error(errno, std::generic_category(), "frame memory");
    }
    memory_ = static_cast<std::uint8_t*>(memory);
  }
  ~MappedMemory() override { munmap(memory_, size_); }
  MappedMemory(const MappedMemory&) = delete;
  MappedMemory& operator=(const MappedMemory&) = delete;

  std::uint64_t size() const override { return size_; }
  const std::uint8_t* at(std::uint64_t offset) const override { return memory_ + offset; }
  bool read(std::uint64_t offset, MutableByteView space) override {
    std::copy_n(memory_ + offset, space.size(), space.begin());
    return true;
  }
  void release(std::uint64_t id) override {
    static_assert(std::atomic_ref<ReleaseWord>::is_always_lock_free);
    std::atomic_ref(*reinterpret_cast<ReleaseWord*>(memory_)).store(id, std::memory_order_release);
  }

 private:
  std::uint8_t* memory_ = nullptr;
  const std::uint64_t size_;
};

class FileMemory final : public FrameMemory {
 public:
  FileMemory(int descriptor, std::uint64_t size) : descriptor_(descriptor), size_(size) {}

  std::uint64_t size() const override { return size_; }
  const std::uint8_t* at(std::uint64_t) const override { return nullptr; }
  bool read(std::uint64_t offset, MutableByteView space) override {
    while (!space.empty()) {
      const ssize_t count =
          pread(descriptor_, space.data(), space.size(), static_cast<off_t>(offset));
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) return false;
      offset += static_cast<std::uint64_t>(count);
      space = space.subspan(static_cast<std::size_t>(count));
    }
    return true;
  }
  // One small write after all reads; a file that takes none costs the parent its slots, not us.
  void release(std::uint64_t id) override {
    ssize_t count = -1;
    do {
      count = pwrite(descriptor_, &id, sizeof id, 0);
    } while (count < 0 && errno == EINTR);
  }

 private:
  const int descriptor_;
  const std::uint64_t size_;
};

}  // namespace

std::shared_ptr<FrameMemory> inheritFrameMemory(int descriptor) {
  struct stat file {};
  if (fstat(descriptor, &file) != 0 || !S_ISREG(file.st_mode)) return nullptr;
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags < 0 || (flags & O_ACCMODE) != O_RDWR) return nullptr;
  const auto size = static_cast<std::uint64_t>(file.st_size);
  if (size < minimumBytes) return nullptr;
  if (canShrink(descriptor)) return std::make_shared<FileMemory>(descriptor, size);
  return std::make_shared<MappedMemory>(descriptor, size);
}

}  // namespace lumora
