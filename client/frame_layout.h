#pragma once

// How the encodings of frames differ. Code that depends on an encoding looks up its layout here.
// Pure.

#include <lumora/frame_format.h>

#include <span>
#include <string_view>

namespace lumora::client {

struct PlaneLayout {
  std::size_t sampleBytes = 1;
  int columns = 1;  // how many columns of pixels share a sample
  int rows = 1;     // how many rows of pixels share a sample

  std::size_t rowBytes(FrameSize size) const {
    return static_cast<std::size_t>(size.width / columns) * sampleBytes;
  }
  int rowCount(FrameSize size) const { return size.height / rows; }
};

struct FrameLayout {
  std::string_view word;                     // in TAVO_FRAME_FORMAT
  bool hasMatrix = false;                    // whether its matrix and range can be chosen
  std::span<const PlaneLayout> planes = {};  // empty: compressed

  // Compressed pictures vary in length, so `Frame::setLength` must set it.
  bool isCompressed() const { return planes.empty(); }
};

const FrameLayout& layoutOf(FrameEncoding encoding);

constexpr std::size_t leastCompressedBytes = 2;

}  // namespace lumora::client
