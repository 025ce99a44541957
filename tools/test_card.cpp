#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "tools/frame_source.h"

namespace lumora::tools {
namespace {

using Colour = std::array<std::uint8_t, 3>;

constexpr int scrollPixelsPerFrame = 4;
constexpr Colour black = {0, 0, 0};
constexpr Colour white = {255, 255, 255};
constexpr Colour bars[] = {white,         {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                           {255, 0, 255}, {255, 0, 0},   {0, 0, 255},   {32, 32, 32}};

// Each character has seven rows of five dots. A row is a digit of base 32, the leftmost dot its
// highest bit.
constexpr std::string_view characters = "0123456789:.";
constexpr std::string_view glyphs[] = {"ehjlphe", "4c4444e", "eh1248v", "v2421he",
                                       "26aiv22", "vgu11he", "68guhhe", "v124888",
                                       "ehhehhe", "ehhf12c", "0440440", "00000cc"};

// Draws at places counted from the top left. The memory has the bottom row first.
struct Canvas {
  std::vector<std::uint8_t>& rgba;
  client::FrameSize size;

  void fill(int left, int top, int width, int height, Colour colour) const {
    const int right = std::min(left + width, size.width);
    for (int y = top; y < std::min(top + height, size.height); ++y) {
      const auto row =
          static_cast<std::size_t>(size.height - 1 - y) * static_cast<std::size_t>(size.width);
      for (int x = left; x < right; ++x) {
        std::uint8_t* pixel = rgba.data() + (row + static_cast<std::size_t>(x)) * 4;
        std::ranges::copy(colour, pixel);
        pixel[3] = 255;
      }
    }
  }

  void write(int left, int top, int dot, std::string_view text) const {
    fill(left, top, (static_cast<int>(text.size()) * 6 + 1) * dot, 9 * dot, black);
    for (const char character : text) {
      int y = top;
      for (const char digit : glyphs[characters.find(character)]) {
        y += dot;
        const int dots = digit <= '9' ? digit - '0' : digit - 'a' + 10;
        for (int column = 0; column < 5; ++column) {
          if (((dots >> (4 - column)) & 1) == 0) continue;
          fill(left + (column + 1) * dot, y, dot, dot, white);
        }
      }
      left += 6 * dot;
    }
  }
};

// Bars above, a pattern of growing frequency below; repeats after `period` pixels.
Colour cardColour(int x, int y, int period, int height) {
  const int inPeriod = x % period;
  if (y < height * 3 / 5) return bars[inPeriod * 8 / period];
  const double along = static_cast<double>(inPeriod) / period;
  const double across = static_cast<double>(y) / height;
  const double wave = std::cos(along * along * 300) * std::cos(across * across * 200);
  const auto grey = static_cast<std::uint8_t>(128 + 100 * wave);
  return {grey, grey, static_cast<std::uint8_t>(255 - grey)};
}

}  // namespace

TestCard::TestCard(client::FrameSize size, int framesPerSecond)
    : size_(size),
      framesPerSecond_(static_cast<std::uint64_t>(framesPerSecond)),
      wide_(size.rgbaBytes() * 2),
      frame_(size.rgbaBytes()) {
  const Canvas canvas{wide_, {size.width * 2, size.height}};
  for (int y = 0; y < size.height; ++y) {
    for (int x = 0; x < size.width * 2; ++x) {
      canvas.fill(x, y, 1, 1, cardColour(x, y, size.width, size.height));
    }
  }
}

// The first flash comes at most half a second after the first frame. A flash lasts three frames.
// Below six frames a second it lasts fewer, so that dark frames lie between the flashes. At one
// frame a second nothing flashes.
bool TestCard::flashes(std::uint64_t number) const {
  return (number + framesPerSecond_ / 2) % framesPerSecond_ <
         std::min<std::uint64_t>(framesPerSecond_ / 2, 3);
}

std::span<const std::uint8_t> TestCard::next(std::uint64_t number, double seconds) {
  const auto rowBytes = static_cast<std::size_t>(size_.width) * 4;
  const auto shift = static_cast<std::size_t>(number * scrollPixelsPerFrame) %
                     static_cast<std::size_t>(size_.width) * 4;
  for (std::size_t row = 0; row < static_cast<std::size_t>(size_.height); ++row) {
    std::memcpy(frame_.data() + row * rowBytes, wide_.data() + row * rowBytes * 2 + shift,
                rowBytes);
  }
  std::array<char, 32> clock{};
  const auto milliseconds = static_cast<long>(seconds * 1000);
  std::snprintf(clock.data(), clock.size(), "%02ld:%02ld.%03ld", milliseconds / 60000,
                milliseconds / 1000 % 60, milliseconds % 1000);
  const Canvas canvas{frame_, size_};
  const int left = size_.width / 16;
  const int dot = std::max(std::min(size_.height / 90, size_.width / 60), 1);
  canvas.write(left, size_.height / 16, dot, clock.data());
  canvas.fill(left, size_.height * 3 / 4, size_.width / 6, size_.height / 6,
              flashes(number) ? white : black);
  return frame_;
}

}  // namespace lumora::tools
