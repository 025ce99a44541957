#include <lumora/frame.h>

#include <algorithm>
#include <stdexcept>

#include "client/frame_slots.h"

namespace lumora::client {

void flipRows(std::span<std::uint8_t> rgba, FrameSize size) {
  if (rgba.size() != size.bytes())
    throw std::invalid_argument("the pixels do not fit the frame size");
  const auto rowBytes = static_cast<std::ptrdiff_t>(size.width) * 4;
  for (int row = 0; row < size.height / 2; ++row) {
    const auto upper = rgba.begin() + row * rowBytes;
    const auto lower = rgba.begin() + (size.height - 1 - row) * rowBytes;
    std::swap_ranges(upper, upper + rowBytes, lower);
  }
}

Frame::Frame(FrameSize size, std::unique_ptr<Loan> loan) : size_(size), loan_(std::move(loan)) {}
Frame::~Frame() = default;
Frame::Frame(Frame&& other) noexcept = default;
Frame& Frame::operator=(Frame&& other) noexcept = default;

std::span<std::uint8_t> Frame::pixels() const {
  if (!loan_) return {};
  return {loan_->pixels(), size_.bytes()};
}

}  // namespace lumora::client
