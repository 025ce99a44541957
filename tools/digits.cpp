#include "tools/digits.h"

#include <algorithm>
#include <array>

namespace lumora::tools {
namespace {

constexpr int glyphRows = 7;
constexpr int glyphColumns = 5;
constexpr int cellWidth = glyphColumns + 1;

using Glyph = std::array<std::uint8_t, glyphRows>;  // one row each, leftmost dot highest bit

constexpr std::array<Glyph, 10> digits = {{{0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E},
                                           {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
                                           {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F},
                                           {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
                                           {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02},
                                           {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
                                           {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E},
                                           {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
                                           {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E},
                                           {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}}};

Glyph glyphOf(char character) {
  if (character >= '0' && character <= '9')
    return digits[static_cast<std::size_t>(character - '0')];
  if (character == ':') return {0, 0x04, 0x04, 0, 0x04, 0x04, 0};
  if (character == '.') return {0, 0, 0, 0, 0, 0x0C, 0x0C};
  return {};
}

}  // namespace

void fillRectangle(const Canvas& canvas, int left, int top, int width, int height, Colour colour) {
  const int right = std::min(left + width, canvas.width);
  const int bottom = std::min(top + height, canvas.height);
  left = std::max(left, 0);
  for (int y = std::max(top, 0); y < bottom; ++y) {
    for (int x = left; x < right; ++x) {
      std::uint8_t* pixel = canvas.pixel(x, y);
      pixel[0] = colour.red;
      pixel[1] = colour.green;
      pixel[2] = colour.blue;
      pixel[3] = 255;
    }
  }
}

void drawDigits(const Canvas& canvas, int left, int top, int scale, std::string_view text,
                Colour colour) {
  const int width = static_cast<int>(text.size()) * cellWidth * scale;
  fillRectangle(canvas, left, top, width + scale, (glyphRows + 2) * scale, {0, 0, 0});
  for (const char character : text) {
    const Glyph glyph = glyphOf(character);
    for (int row = 0; row < glyphRows; ++row) {
      for (int column = 0; column < glyphColumns; ++column) {
        const bool lit = (glyph[static_cast<std::size_t>(row)] >> (glyphColumns - 1 - column)) & 1;
        if (!lit) continue;
        fillRectangle(canvas, left + (column + 1) * scale, top + (row + 1) * scale, scale, scale,
                      colour);
      }
    }
    left += cellWidth * scale;
  }
}

}  // namespace lumora::tools
