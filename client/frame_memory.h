#pragma once

// Memory that a helper shares with us, so that pictures need not go through its pipe: drawn in
// docs/protocol.md. One page with the helper's release word, then slots of one picture each.

#include <lumora/frame.h>

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "client/descriptor.h"

namespace lumora::client {

// Any thread.
class FrameMemory : public std::enable_shared_from_this<FrameMemory> {
 public:
  // One is converted, one is encoded where it lies, one waits, one is rendered into.
  static constexpr int slots = 4;

  // Null where the system has no memory that can be sealed against shrinking.
  static std::shared_ptr<FrameMemory> make();
  ~FrameMemory();
  FrameMemory(const FrameMemory&) = delete;
  FrameMemory& operator=(const FrameMemory&) = delete;

  // What the helper has to inherit.
  int descriptor() const { return descriptor_.get(); }

  // A slot on loan, for a picture of any size that a helper takes; null when all are in use.
  std::unique_ptr<Frame::Loan> acquire();

 private:
  class Loan;
  struct Slot {
    bool lent = false;
    std::uint64_t publishedAs = 0;  // the frame that the helper reads there; 0: none
  };

  FrameMemory(Descriptor descriptor, std::uint8_t* memory);
  std::uint64_t released() const;
  void giveBack(int slot, std::uint64_t publishedAs);

  const Descriptor descriptor_;
  std::uint8_t* const memory_;
  std::mutex mutex_;  // guards the slots
  std::array<Slot, slots> slots_;
};

}  // namespace lumora::client
