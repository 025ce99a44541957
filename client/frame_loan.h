#pragma once

#include <lumora/frame.h>

#include <cstdint>
#include <optional>

namespace lumora::client {

// What a frame holds: a buffer of its own, or a slot that a helper sees too.
class Frame::Loan {
 public:
  Loan() = default;
  virtual ~Loan() = default;
  Loan(const Loan&) = delete;
  Loan& operator=(const Loan&) = delete;

  virtual std::uint8_t* pixels() = 0;
  // Where the pixels lie in the memory shared with the helper; nothing when they don't.
  virtual std::optional<std::uint64_t> offset() const { return std::nullopt; }
  // The helper has been told of them under this id, and says itself when it is done with them.
  virtual void published(std::uint64_t) {}
};

}  // namespace lumora::client
