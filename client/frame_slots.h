#pragma once

// Where pictures are rendered: a few slots, each large enough for any frame. A helper may see them,
// too, so that pictures need not go through its pipe; docs/protocol.md draws the memory then.

#include <lumora/frame.h>

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "client/descriptor.h"

namespace lumora::client {

// Any thread.
class FrameSlots : public std::enable_shared_from_this<FrameSlots> {
 public:
  // One is converted or written, one is encoded where it lies, one waits, one is rendered into.
  static constexpr int count = 4;

  // Slots that a helper can see; null where the system has no memory that can be sealed against
  // shrinking.
  static std::shared_ptr<FrameSlots> makeShared();
  // Slots of our own. Throws std::bad_alloc.
  static std::shared_ptr<FrameSlots> makePrivate();
  ~FrameSlots();
  FrameSlots(const FrameSlots&) = delete;
  FrameSlots& operator=(const FrameSlots&) = delete;

  // What a helper has to inherit; -1: nothing.
  int descriptor() const { return descriptor_.get(); }
  // Whether a helper that is ready has looked at the memory. One that knows nothing of it has not.
  bool isShared() const { return released() != neverReleased; }

  // Has memory at hand for a picture of this size in every slot, whose first touch takes several
  // milliseconds. Before the first `acquire`. Throws std::bad_alloc.
  void prepare(FrameSize size);
  // A free slot for a picture; nothing when there is none. Throws std::bad_alloc.
  std::optional<Frame> acquire(FrameSize size);

 private:
  friend class Frame::Loan;
  static constexpr std::uint64_t neverReleased = ~std::uint64_t{0};
  struct Slot {
    bool isLent = false;
    std::size_t reserved = 0;       // bytes that are sure to be there
    std::uint64_t publishedAs = 0;  // the frame that the helper reads there; 0: none
  };

  FrameSlots(Descriptor descriptor, std::uint8_t* memory);
  static std::shared_ptr<FrameSlots> make(Descriptor descriptor);
  std::uint64_t released() const;
  void reserve(int slot, std::size_t bytes);
  void giveBack(int slot, std::uint64_t publishedAs);

  const Descriptor descriptor_;
  std::uint8_t* const memory_;
  std::mutex mutex_;  // guards the slots
  std::array<Slot, count> slots_;
};

// A slot that a frame has.
class Frame::Loan {
 public:
  Loan(std::shared_ptr<FrameSlots> from, int slot) : from_(std::move(from)), slot_(slot) {}
  ~Loan() { from_->giveBack(slot_, publishedAs_); }
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;

  const FrameSlots& from() const { return *from_; }
  std::uint64_t offset() const;
  std::uint8_t* pixels() const { return from_->memory_ + offset(); }
  // The helper has been told of it, and says itself when it is done with the pixels.
  void markPublished(std::uint64_t id) { publishedAs_ = id; }

 private:
  const std::shared_ptr<FrameSlots> from_;
  const int slot_;
  std::uint64_t publishedAs_ = 0;
};

}  // namespace lumora::client
