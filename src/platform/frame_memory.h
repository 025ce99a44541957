#pragma once

// Memory that the parent shares with us: it renders pictures into it, and sends only where they
// lie. Its first eight bytes are ours to write; docs/protocol.md draws it.

#include <cstdint>

#include "base/bytes.h"

namespace lumora {

class FrameMemory {
 public:
  virtual ~FrameMemory() = default;
  // Bytes, of which every one may be asked for.
  virtual std::uint64_t size() const = 0;
  // What lies at `offset`, for as long as we live, whatever the parent does meanwhile; null where
  // that can't be had, and it has to be read. Reader thread.
  virtual const std::uint8_t* at(std::uint64_t offset) const = 0;
  // Fills `space` with what lies at `offset`; false when it is no longer there. Reader thread.
  virtual bool read(std::uint64_t offset, MutableByteView space) = 0;
  // Tells the parent that the pixels of this frame, and of all before it, are no longer needed: all
  // that was read of them was read before. One thread at a time.
  virtual void release(std::uint64_t id) = 0;
};

}  // namespace lumora
