#pragma once

// Memory that the parent shares with us. It renders pictures there and sends only their offsets.
// docs/protocol.md draws it.

#include <cstdint>
#include <memory>

namespace lumora {

constexpr std::uint64_t framePageBytes = 4096;  // whatever the machine's pages are

class FrameMemory {
 public:
  virtual ~FrameMemory() = default;
  // Bytes, at launch.
  virtual std::uint64_t size() const = 0;
  // The pixels of frame `id` at `offset`, which the caller has checked. They are released to the
  // parent with the last reference. Reader thread, with growing ids.
  virtual std::shared_ptr<const std::uint8_t[]> pixels(std::uint64_t id, std::uint64_t offset) = 0;
};

}  // namespace lumora
