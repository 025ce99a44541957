#include "tools/test_card.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "tools/digits.h"

namespace lumora::tools {
namespace {

constexpr int scrollPixelsPerFrame = 4;
constexpr Colour bars[] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                           {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {32, 32, 32}};

// Bars above, a fine pattern of growing frequency below; repeats after `period` pixels.
Colour cardColour(int x, int y, int period, int height) {
  const int inPeriod = x % period;
  if (y < height * 3 / 5) return bars[inPeriod * 8 / period];
  const double along = static_cast<double>(inPeriod) / period;
  const double across = static_cast<double>(y) / height;
  const double wave = std::cos(along * along * 300) * std::cos(across * across * 200);
  const auto grey = static_cast<std::uint8_t>(128 + 100 * wave);
  return {grey, grey, static_cast<std::uint8_t>(255 - grey)};
}

// Back and forth between 0 and `range`.
int bounce(std::uint64_t step, int range) {
  if (range <= 0) return 0;
  const auto at = static_cast<int>(step % (2 * static_cast<std::uint64_t>(range)));
  return at < range ? at : 2 * range - at;
}

}  // namespace

TestCard::TestCard(client::FrameSize size)
    : size_(size), wide_(size.bytes() * 2), frame_(size.bytes()) {
  const Canvas canvas{wide_, size.width * 2, size.height};
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width * 2; ++x) {
      fillRectangle(canvas, x, y, 1, 1, cardColour(x, y, size.width, size.height));
    }
  }
}

std::span<const std::uint8_t> TestCard::next(std::uint64_t number, double seconds) {
  const auto rowBytes = static_cast<std::size_t>(size_.width) * 4;
  const auto shift = static_cast<std::size_t>(number * scrollPixelsPerFrame) %
                     static_cast<std::size_t>(size_.width) * 4;
  for (std::size_t row = 0; row < static_cast<std::size_t>(size_.height); ++row) {
    std::memcpy(frame_.data() + row * rowBytes, wide_.data() + row * rowBytes * 2 + shift,
                rowBytes);
  }
  const Canvas canvas{frame_, size_.width, size_.height};
  const int side = size_.height / 6;
  fillRectangle(canvas, bounce(number * 7, size_.width - side),
                bounce(number * 5, size_.height - side), side, side, {240, 128, 16});
  char text[64];
  const auto milliseconds = static_cast<long>(seconds * 1000);
  std::snprintf(text, sizeof text, "%02ld:%02ld.%03ld", milliseconds / 60000,
                milliseconds / 1000 % 60, milliseconds % 1000);
  const int scale = std::max(size_.height / 90, 1);
  drawDigits(canvas, size_.width / 16, size_.height / 16, scale, text, {255, 255, 255});
  std::snprintf(text, sizeof text, "%06llu", static_cast<unsigned long long>(number));
  drawDigits(canvas, size_.width / 16, size_.height / 16 + 10 * scale, scale, text, {255, 220, 0});
  return frame_;
}

}  // namespace lumora::tools
