#pragma once

// Pictures in memory, what their samples mean, and the scaling of a camera picture to a session's
// size.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace lumora {

// How the samples of a picture lie in memory. nv12 has a plane of luma and one of alternating U and
// V. i420 has three planes. Chroma has half the columns and half the rows.
enum class PixelLayout { bgra, rgba, nv12, i420 };

// MatrixCoefficients 6 and 1 of ISO/IEC 23091-2.
enum class ColourMatrix { bt601, bt709 };

struct PixelFormat {
  PixelLayout layout = PixelLayout::rgba;
  ColourMatrix matrix = ColourMatrix::bt709;  // for RGB, the matrix of the 4:2:0 picture made of it
  bool fullRange = false;                     // of luma and chroma
  bool operator==(const PixelFormat&) const = default;
};

struct PictureSize {
  std::int64_t width = 0;   // pixels
  std::int64_t height = 0;  // pixels
  bool operator==(const PictureSize&) const = default;
};

struct PictureRectangle {
  std::int64_t left = 0;
  std::int64_t top = 0;
  PictureSize size;
  bool operator==(const PictureRectangle&) const = default;
};

// One plane of a layout. A sample stands for `columns` × `rows` pixels.
struct PlaneShape {
  int channels = 1;  // bytes of a sample
  int columns = 1;
  int rows = 1;
  std::uint8_t black = 0;      // in limited range
  std::uint8_t fullBlack = 0;  // in full range

  // The bytes of a row, and the number of rows, of this plane in a picture of `size`.
  std::int64_t rowBytes(PictureSize size) const { return size.width / columns * channels; }
  std::int64_t rowCount(PictureSize size) const { return size.height / rows; }
};
std::span<const PlaneShape> planesOf(PixelLayout layout);

constexpr bool isRGB(PixelLayout layout) {
  return layout == PixelLayout::bgra || layout == PixelLayout::rgba;
}

// The bytes of a row in our own pictures are a multiple of this. That suits SIMD. It also leaves
// room for the whole blocks that libjpeg writes, which may go beyond the width.
constexpr std::int64_t rowAlignment = 64;

template <typename Byte>
struct BasicPlane {
  Byte* samples = nullptr;    // first byte of the first row
  std::ptrdiff_t stride = 0;  // bytes from one row to the next; may be negative
};
using Plane = BasicPlane<std::uint8_t>;
using PlaneView = BasicPlane<const std::uint8_t>;

// A picture of even width and height, the top row first unless a comment says otherwise.
template <typename Byte>
struct BasicPicture {
  PixelFormat format;
  PictureSize size;
  std::array<BasicPlane<Byte>, 3> planes = {};  // those of the layout, then empty ones

  operator BasicPicture<const Byte>() const requires(!std::is_const_v<Byte>) {
    BasicPicture<const Byte> view{format, size};
    for (std::size_t i = 0; i < planes.size(); ++i)
      view.planes[i] = {planes[i].samples, planes[i].stride};
    return view;
  }
};
using Picture = BasicPicture<std::uint8_t>;
using PictureView = BasicPicture<const std::uint8_t>;

// Bytes of a picture whose planes follow each other. A row takes a multiple of `alignment` bytes.
std::size_t pictureBytes(PixelLayout layout, PictureSize size, std::int64_t alignment = 1);

// The picture whose planes follow each other from `samples` on. `alignment` is as in
// `pictureBytes`.
template <typename Byte>
BasicPicture<Byte> pictureAt(Byte* samples, const PixelFormat& format, PictureSize size,
                             std::int64_t alignment = 1);

// The same picture, seen from its last row up.
PictureView upsideDown(const PictureView& picture);

// The samples of a plane that lie in a rectangle of pixels. A sample that is only partly inside
// counts as inside. So a chroma sample on the edge between a picture and a black bar gets the
// picture's chroma.
PictureRectangle samplesIn(const PictureRectangle& pixels, const PlaneShape& shape);

class ImageConverter {
 public:
  virtual ~ImageConverter() = default;
  // Fills `area` of `destination` with `source`, resampled to the size of the area. RGB always
  // comes out with red and blue exchanged: RGBA as BGRA, BGRA as RGBA. NV12 and I420 keep their
  // layout. False on failure. Any thread, one call at a time.
  virtual bool convert(const PictureView& source, const Picture& destination,
                       const PictureRectangle& area) = 0;
};

}  // namespace lumora
