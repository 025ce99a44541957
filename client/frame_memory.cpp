#include "client/frame_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <utility>

#include "client/frame_loan.h"

namespace lumora::client {
namespace {

constexpr std::size_t pageBytes = 4096;
constexpr std::size_t slotBytes = std::size_t{1920} * 1080 * 4;  // of whole pages
static_assert(slotBytes % pageBytes == 0);
constexpr std::size_t memoryBytes = pageBytes + FrameMemory::slots * slotBytes;

constexpr std::size_t offsetOf(int slot) {
  return pageBytes + static_cast<std::size_t>(slot) * slotBytes;
}

// Not open where there is none that can be sealed.
Descriptor makeSealedMemory() {
#ifdef F_ADD_SEALS
  Descriptor made(memfd_create("lumora-frames", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  // What comes from here must not be one of the standard streams, which the helper has others for.
  if (made.isOpen() && made.get() <= STDERR_FILENO) {
    made = Descriptor(fcntl(made.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  if (made.isOpen() && ftruncate(made.get(), memoryBytes) == 0 &&
      fcntl(made.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0) {
    return made;
  }
#endif
  return {};
}

}  // namespace

class FrameMemory::Loan final : public Frame::Loan {
 public:
  Loan(std::shared_ptr<FrameMemory> from, int slot) : from_(std::move(from)), slot_(slot) {}
  ~Loan() override { from_->giveBack(slot_, publishedAs_); }

  std::uint8_t* pixels() override { return from_->memory_ + offsetOf(slot_); }
  std::optional<std::uint64_t> offset() const override { return offsetOf(slot_); }
  void published(std::uint64_t id) override { publishedAs_ = id; }

 private:
  const std::shared_ptr<FrameMemory> from_;
  const int slot_;
  std::uint64_t publishedAs_ = 0;
};

std::shared_ptr<FrameMemory> FrameMemory::make() {
  Descriptor descriptor = makeSealedMemory();
  if (!descriptor.isOpen()) return nullptr;
  void* memory =
      mmap(nullptr, memoryBytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor.get(), 0);
  if (memory == MAP_FAILED) return nullptr;
  return std::shared_ptr<FrameMemory>(
      new FrameMemory(std::move(descriptor), static_cast<std::uint8_t*>(memory)));
}

FrameMemory::FrameMemory(Descriptor descriptor, std::uint8_t* memory)
    : descriptor_(std::move(descriptor)), memory_(memory) {}

FrameMemory::~FrameMemory() { munmap(memory_, memoryBytes); }

std::uint64_t FrameMemory::released() const {
  return std::atomic_ref(*reinterpret_cast<std::uint64_t*>(memory_))
      .load(std::memory_order_acquire);
}

std::unique_ptr<Frame::Loan> FrameMemory::acquire() {
  const std::lock_guard hold(mutex_);
  const std::uint64_t latest = released();
  for (int slot = 0; slot < slots; ++slot) {
    Slot& state = slots_[static_cast<std::size_t>(slot)];
    if (state.lent || state.publishedAs > latest) continue;
    auto loan = std::make_unique<Loan>(shared_from_this(), slot);
    state.lent = true;
    return loan;
  }
  return nullptr;
}

void FrameMemory::giveBack(int slot, std::uint64_t publishedAs) {
  const std::lock_guard hold(mutex_);
  slots_[static_cast<std::size_t>(slot)] = {false, publishedAs};
}

}  // namespace lumora::client
