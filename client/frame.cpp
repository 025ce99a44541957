#include <lumora/frame.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "client/frame_layout.h"
#include "client/frame_slots.h"

namespace lumora::client {

void flipRows(std::span<std::uint8_t> rgba, FrameSize size) {
  if (rgba.size() != size.rgbaBytes())
    throw std::invalid_argument("the pixels do not fit the frame size");
  const auto rowBytes = static_cast<std::ptrdiff_t>(size.width) * 4;
  for (int row = 0; row < size.height / 2; ++row) {
    const auto upper = rgba.begin() + row * rowBytes;
    const auto lower = rgba.begin() + (size.height - 1 - row) * rowBytes;
    std::swap_ranges(upper, upper + rowBytes, lower);
  }
}

Frame::Frame(FrameFormat format, FrameSize size, std::unique_ptr<Loan> loan)
    : format_(format),
      size_(size),
      length_(layoutOf(format.encoding).isCompressed() ? 0 : format.bytes(size)),
      loan_(std::move(loan)) {}
Frame::~Frame() = default;
Frame::Frame(Frame&& other) noexcept = default;
Frame& Frame::operator=(Frame&& other) noexcept = default;

std::span<std::uint8_t> Frame::pixels() const {
  if (!loan_) return {};
  return {loan_->pixels(), format_.bytes(size_)};
}

std::vector<FramePlane> Frame::planes() const {
  const auto all = pixels();
  if (all.empty()) return {};
  const FrameLayout& layout = layoutOf(format_.encoding);
  std::vector<FramePlane> planes;
  std::uint8_t* next = all.data();
  for (const PlaneLayout& each : layout.planes) {
    const auto stride = static_cast<std::ptrdiff_t>(each.rowBytes(size_));
    planes.push_back({next, stride, each.rowCount(size_), each.rowBytes(size_)});
    next += stride * each.rowCount(size_);
  }
  return planes;
}

void Frame::setLength(std::size_t bytes) {
  const std::size_t most = pixels().size();
  const std::size_t least = layoutOf(format_.encoding).isCompressed() ? leastCompressedBytes : most;
  if (!loan_ || bytes < least || bytes > most)
    throw std::invalid_argument(
        "the frame was already published, or needs a picture of another length");
  length_ = bytes;
}

void Frame::copyFrom(std::span<const SourcePlane> picture) {
  const auto mine = planes();
  if (picture.size() != mine.size() || mine.empty())
    throw std::invalid_argument("the frame was already published, or has another number of planes");
  for (std::size_t i = 0; i < mine.size(); ++i) {
    const auto& [to, stride, rows, rowBytes] = mine[i];
    for (int row = 0; row < rows; ++row)
      std::memcpy(to + row * stride, picture[i].samples + row * picture[i].stride, rowBytes);
  }
}

void Frame::copyFrom(std::span<const std::uint8_t> picture) {
  setLength(picture.size());
  // memcpy, because std::ranges::copy may copy one byte at a time.
  std::memcpy(pixels().data(), picture.data(), picture.size());
}

}  // namespace lumora::client
