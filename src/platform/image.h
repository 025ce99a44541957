#pragma once

// Views on four-channel, 8-bit images, and the conversion of a camera picture to a picture for the
// encoder.

#include <cstddef>
#include <cstdint>

namespace lumora {

enum class ChannelOrder { bgra, rgba };

struct ImageView {
  const std::uint8_t* pixels = nullptr;  // first byte of the first row
  std::int64_t width = 0;                // pixels
  std::int64_t height = 0;               // rows
  std::ptrdiff_t stride = 0;             // bytes from one row to the next
};

struct MutableImageView {
  std::uint8_t* pixels = nullptr;
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::ptrdiff_t stride = 0;
};

class ImageConverter {
 public:
  virtual ~ImageConverter() = default;
  // Fills `destination` (BGRA) with `source` (RGBA), resampled to its size and turned upside down:
  // the first source row becomes the last destination row. False on failure. State queue only.
  virtual bool convert(const ImageView& source, const MutableImageView& destination) = 0;
};

}  // namespace lumora
