#pragma once

#include <cstdint>
#include <span>

#include "client/records.h"

namespace lumora::tools {

// Pictures as a parent feeds them: RGBA, the bottom row first.
class FrameSource {
 public:
  virtual ~FrameSource() = default;
  virtual client::FrameSize size() const = 0;
  // Whether `next` waits for the moment of a capture, as a camera does.
  virtual bool keepsTime() const { return false; }
  // The picture of frame `number` (from 1), shown `seconds` after the first; empty at the end.
  // Valid until the next call.
  virtual std::span<const std::uint8_t> next(std::uint64_t number, double seconds) = 0;
};

}  // namespace lumora::tools
