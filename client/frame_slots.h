#pragma once

// Slots that frames are rendered into, each large enough for any frame. If their memory is shared
// with the helper, pixels don't go through its pipe. docs/protocol.md has a drawing of that memory.

#include <lumora/frame.h>

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "client/descriptor.h"

namespace lumora::client {

// Its functions may be called on any thread.
class FrameSlots : public std::enable_shared_from_this<FrameSlots> {
 public:
  // Enough for the usual case: one is sent or converted, one is encoded in place, a third waits,
  // and the application renders into the fourth.
  static constexpr int count = 4;

  // Slots in memory that a helper can share. Null if the system can't make such memory or seal it
  // against shrinking.
  static std::shared_ptr<FrameSlots> makeShared(FrameFormat format = {});
  // Slots in private memory. Throws std::bad_alloc.
  static std::shared_ptr<FrameSlots> makePrivate(FrameFormat format = {});
  ~FrameSlots();
  FrameSlots(const FrameSlots&) = delete;
  FrameSlots& operator=(const FrameSlots&) = delete;

  const FrameFormat& format() const { return format_; }
  // The descriptor that the helper inherits; -1: the memory is private.
  int descriptor() const { return descriptor_.get(); }
  // Whether the helper uses the memory. Valid once the helper is ready. False if the memory is
  // private, or the helper's version is too old to use it.
  bool isShared() const { return released() != neverReleased; }

  // Touches the memory of a frame of this size in every slot, so that the first frames don't wait
  // several milliseconds for it. Call before the first `acquire`. Throws std::bad_alloc.
  void prepare(FrameSize size);
  // A free slot for a frame; empty when every slot is busy. Throws std::bad_alloc.
  std::optional<Frame> acquire(FrameSize size);

 private:
  friend class Frame::Loan;
  static constexpr std::uint64_t neverReleased = ~std::uint64_t{0};
  struct Slot {
    bool isLent = false;
    std::size_t reserved = 0;       // bytes reserved so far
    std::uint64_t publishedAs = 0;  // id of the latest frame if the helper reads this slot, else 0
  };

  FrameSlots(FrameFormat format, Descriptor descriptor, std::uint8_t* memory);
  static std::shared_ptr<FrameSlots> make(FrameFormat format, Descriptor descriptor);
  std::uint64_t released() const;
  void reserve(int slot, std::size_t bytes);
  void giveBack(int slot, std::uint64_t publishedAs);

  const FrameFormat format_;
  const Descriptor descriptor_;
  std::uint8_t* const memory_;
  std::mutex mutex_;  // guards the slots
  std::array<Slot, count> slots_;
};

// A frame's use of a slot.
class Frame::Loan {
 public:
  Loan(std::shared_ptr<FrameSlots> from, int slot) : from_(std::move(from)), slot_(slot) {}
  ~Loan() { from_->giveBack(slot_, publishedAs_); }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;

  const FrameSlots& from() const { return *from_; }
  std::uint64_t offset() const;
  std::uint8_t* pixels() const { return from_->memory_ + offset(); }
  // The slot stays busy after the loan, until the helper has released the frame with this id.
  void markPublished(std::uint64_t id) { publishedAs_ = id; }

 private:
  const std::shared_ptr<FrameSlots> from_;
  const int slot_;
  std::uint64_t publishedAs_ = 0;
};

}  // namespace lumora::client
