#include <lumora/frame_format.h>

#include <algorithm>
#include <array>

#include "client/frame_layout.h"

namespace lumora::client {
namespace {

constexpr PlaneLayout fourBytes[] = {{.sampleBytes = 4}};
constexpr PlaneLayout threeBytes[] = {{.sampleBytes = 3}};
constexpr PlaneLayout twoBytes[] = {{.sampleBytes = 2}};
constexpr PlaneLayout twoPlanes[] = {{}, {.sampleBytes = 2, .columns = 2, .rows = 2}};
constexpr PlaneLayout threePlanes[] = {{}, {.columns = 2, .rows = 2}, {.columns = 2, .rows = 2}};

// The layouts are in the order of `FrameEncoding`.
constexpr std::array<FrameLayout, 10> layouts = {{
    {"rgba", false, fourBytes},
    {"bgra", false, fourBytes},
    {"rgb24", false, threeBytes},
    {"bgr24", false, threeBytes},
    {"nv12", true, twoPlanes},
    {"nv21", true, twoPlanes},
    {"i420", true, threePlanes},
    {"yuyv", true, twoBytes},
    {"uyvy", true, twoBytes},
    {"mjpeg"},
}};

// However small a JPEG picture is, its tables need some room.
constexpr std::size_t leastCompressedRoom = std::size_t{64} << 10;

}  // namespace

const FrameLayout& layoutOf(FrameEncoding encoding) {
  return layouts.at(static_cast<std::size_t>(encoding));
}

std::string FrameFormat::text() const {
  std::string text(layoutOf(encoding).word);
  if (firstRow) text += *firstRow == FirstRow::top ? ",top" : ",bottom";
  if (matrix) text += *matrix == ColourMatrix::bt601 ? ",bt601" : ",bt709";
  if (range) text += *range == ColourRange::limited ? ",limited" : ",full";
  return text;
}

std::size_t FrameFormat::bytes(FrameSize size) const {
  const FrameLayout& layout = layoutOf(encoding);
  if (layout.isCompressed())
    return std::max(FrameFormat{FrameEncoding::yuyv}.bytes(size), leastCompressedRoom);
  std::size_t sum = 0;
  for (const PlaneLayout& plane : layout.planes)
    sum += plane.rowBytes(size) * static_cast<std::size_t>(plane.rowCount(size));
  return sum;
}

}  // namespace lumora::client
