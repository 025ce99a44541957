#pragma once

// Memory that the parent shares with us: it renders pictures into it, and sends only where they
// lie. docs/protocol.md draws it.

#include <cstdint>
#include <memory>

namespace lumora {

constexpr std::uint64_t framePageBytes = 4096;  // whatever the machine's pages are

class FrameMemory {
 public:
  virtual ~FrameMemory() = default;
  // Bytes, at launch.
  virtual std::uint64_t size() const = 0;
  // The pixels of frame `id`, `bytes` at `offset`, which are inside; null when they are no longer
  // there. The parent is told that it has them back when the last reference goes, or at once where
  // they had to be copied. Reader thread, by growing ids; throws std::bad_alloc.
  virtual std::shared_ptr<const std::uint8_t[]> pixels(std::uint64_t id, std::uint64_t offset,
                                                       std::size_t bytes) = 0;
};

}  // namespace lumora
