#pragma once

// Memory that the parent shares with us. The parent renders pictures into it and sends only their
// offsets. docs/protocol.md has its layout.

#include <cstdint>
#include <memory>

namespace lumora {

constexpr std::uint64_t framePageBytes = 4096;  // also where the machine's pages are larger

class FrameMemory {
 public:
  virtual ~FrameMemory() = default;
  // The size at launch, in bytes.
  virtual std::uint64_t size() const = 0;
  // The pixels of frame `id` at `offset`. The caller has checked the offset and calls with growing
  // ids. The parent may overwrite these pixels once the pointers to this frame and to all earlier
  // ones are gone. Reader thread.
  virtual std::shared_ptr<const std::uint8_t[]> pixels(std::uint64_t id, std::uint64_t offset) = 0;
};

}  // namespace lumora
