#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace lumora::tools {

// A picture in the order it is fed: RGBA, bottom row first; x and y count from the top left.
struct Canvas {
  std::vector<std::uint8_t>& rgba;
  int width;
  int height;

  std::uint8_t* pixel(int x, int y) const {
    return rgba.data() +
           (static_cast<std::size_t>(height - 1 - y) * static_cast<std::size_t>(width) +
            static_cast<std::size_t>(x)) *
               4;
  }
};

struct Colour {
  std::uint8_t red;
  std::uint8_t green;
  std::uint8_t blue;
};

// Fills the part of the rectangle that lies on the canvas.
void fillRectangle(const Canvas& canvas, int left, int top, int width, int height, Colour colour);

// Draws digits, ":", "." and blanks, each cell 6 × 9 dots of `scale` pixels, on black.
void drawDigits(const Canvas& canvas, int left, int top, int scale, std::string_view text,
                Colour colour);

}  // namespace lumora::tools
