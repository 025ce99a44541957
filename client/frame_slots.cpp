#include "client/frame_slots.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <new>
#include <utility>

namespace lumora::client {
namespace {

constexpr std::size_t pageBytes = 4096;
constexpr std::size_t slotBytes = std::size_t{1920} * 1080 * 4;
static_assert(slotBytes % pageBytes == 0);
// A signal undoes the reservation that it interrupts. An application may have a fast timer that
// sends signals. So each reservation is small enough to end between two signals.
constexpr std::size_t reservedAtOnce = std::size_t{256} << 10;
constexpr std::size_t memoryBytes = pageBytes + FrameSlots::count * slotBytes;

constexpr std::uint64_t offsetOf(int slot) {
  return pageBytes + static_cast<std::uint64_t>(slot) * slotBytes;
}

// False if the system has no memory left. A touch of memory that is not reserved would then end the
// process with a signal.
bool reserveBytes(int descriptor, std::uint64_t offset, std::size_t bytes) {
  int error = 0;
  do {
    error = posix_fallocate(descriptor, static_cast<off_t>(offset), static_cast<off_t>(bytes));
  } while (error == EINTR);
  return error == 0;
}

// The descriptor is not open if the system can't seal memory or has none left.
Descriptor makeSealedMemory() {
#ifdef F_ADD_SEALS
  Descriptor made(memfd_create("lumora-frames", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  // The helper inherits it under the same number, and there 0 to 2 are the standard streams.
  if (made.isOpen() && made.get() <= STDERR_FILENO) {
    made = Descriptor(fcntl(made.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  // Reserves the first page. It has the release word: the id of the latest frame that the helper
  // has released. The slots come after it, and `reserve` reserves those.
  if (made.isOpen() && ftruncate(made.get(), memoryBytes) == 0 &&
      reserveBytes(made.get(), 0, pageBytes) &&
      fcntl(made.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
    return made;
  }
#endif
  return {};
}

std::atomic_ref<std::uint64_t> releaseWord(std::uint8_t* memory) {
  return std::atomic_ref(*reinterpret_cast<std::uint64_t*>(memory));
}

}  // namespace

std::uint64_t Frame::Loan::offset() const { return offsetOf(slot_); }

std::shared_ptr<FrameSlots> FrameSlots::makeShared(FrameFormat format) {
  Descriptor descriptor = makeSealedMemory();
  return descriptor.isOpen() ? make(format, std::move(descriptor)) : nullptr;
}

std::shared_ptr<FrameSlots> FrameSlots::makePrivate(FrameFormat format) {
  auto made = make(format, {});
  if (!made) throw std::bad_alloc();
  return made;
}

std::shared_ptr<FrameSlots> FrameSlots::make(FrameFormat format, Descriptor descriptor) {
  const int kind = descriptor.isOpen() ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
  void* memory = mmap(nullptr, memoryBytes, PROT_READ | PROT_WRITE, kind, descriptor.get(), 0);
  if (memory == MAP_FAILED) return nullptr;
  return std::shared_ptr<FrameSlots>(
      new FrameSlots(format, std::move(descriptor), static_cast<std::uint8_t*>(memory)));
}

FrameSlots::FrameSlots(FrameFormat format, Descriptor descriptor, std::uint8_t* memory)
    : format_(format), descriptor_(std::move(descriptor)), memory_(memory) {
  releaseWord(memory_).store(neverReleased, std::memory_order_relaxed);
}

FrameSlots::~FrameSlots() { munmap(memory_, memoryBytes); }

std::uint64_t FrameSlots::released() const {
  return releaseWord(memory_).load(std::memory_order_acquire);
}

void FrameSlots::prepare(FrameSize size) {
  const std::size_t bytes = format_.bytes(size);
  const std::lock_guard hold(mutex_);
  for (int slot = 0; slot < count; ++slot) {
    reserve(slot, bytes);
    std::uint8_t* const pixels = memory_ + offsetOf(slot);
    for (std::size_t at = 0; at < bytes; at += pageBytes) pixels[at] = 0;
  }
}

std::optional<Frame> FrameSlots::acquire(FrameSize size) {
  const std::lock_guard hold(mutex_);
  const std::uint64_t latest = released();
  for (int i = 0; i < count; ++i) {
    Slot& slot = slots_[static_cast<std::size_t>(i)];
    if (slot.isLent || slot.publishedAs > latest) continue;
    reserve(i, format_.bytes(size));
    Frame frame(format_, size, std::make_unique<Frame::Loan>(shared_from_this(), i));
    slot.isLent = true;
    return frame;
  }
  return std::nullopt;
}

// Reserves the first `bytes` of a slot in shared memory. Throws std::bad_alloc.
void FrameSlots::reserve(int slot, std::size_t bytes) {
  Slot& state = slots_[static_cast<std::size_t>(slot)];
  if (!descriptor_.isOpen()) return;
  while (state.reserved < bytes) {
    const std::size_t next = std::min(bytes - state.reserved, reservedAtOnce);
    if (!reserveBytes(descriptor_.get(), offsetOf(slot) + state.reserved, next))
      throw std::bad_alloc();
    state.reserved += next;
  }
}

void FrameSlots::giveBack(int slot, std::uint64_t publishedAs) {
  const std::lock_guard hold(mutex_);
  Slot& state = slots_[static_cast<std::size_t>(slot)];
  state.isLent = false;
  state.publishedAs = publishedAs;
}

}  // namespace lumora::client
