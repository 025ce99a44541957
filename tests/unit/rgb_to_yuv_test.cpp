// The conversion to 4:2:0 beside real arithmetic, on every instruction set that this machine has.

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>

#include "base/bytes.h"
#include "picture/rgb_to_yuv.h"

namespace lumora {
namespace {

void onEveryTarget(const std::function<void()>& check) {
  for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
    SCOPED_TRACE(hwy::TargetName(target));
    hwy::SetSupportedTargetsForTest(target);
    check();
  }
  hwy::SetSupportedTargetsForTest(0);
}

struct Yuv {
  double y, u, v;
};

Yuv exact(double r, double g, double b) {
  const double y = 0.2126 * r + 0.7152 * g + 0.0722 * b;
  return {16 + y * 219 / 255, 128 + (b - y) / 1.8556 * 224 / 255,
          128 + (r - y) / 1.5748 * 224 / 255};
}

PictureView viewOf(const std::uint8_t* pixels, std::int64_t width, std::int64_t height,
                   std::ptrdiff_t stride, PixelLayout layout = PixelLayout::bgra) {
  return {{.layout = layout}, {width, height}, {{{pixels, stride}}}};
}

// One column wider than the picture, for what must not be written.
struct Samples {
  Samples(std::int64_t width, std::int64_t height)
      : stride(width + 1), bytes(static_cast<std::size_t>(stride * height), 7) {}
  operator Plane() { return {bytes.data(), stride}; }
  int at(std::int64_t x, std::int64_t y) const {
    return bytes[static_cast<std::size_t>(y * stride + x)];
  }
  std::int64_t stride;
  Bytes bytes;
};

TEST(RgbToYuv, IsExactWithinRoundingForAnyColourAndExactForGreys) {
  onEveryTarget([] {
    const auto steps = [](int i) { return static_cast<std::uint8_t>(i % 18 * 15); };
    for (int i = 0; i < 18 * 18 * 18; ++i) {
      const std::uint8_t blue = steps(i), green = steps(i / 18), red = steps(i / 324);
      Bytes bgra;
      for (int pixel = 0; pixel < 128; ++pixel) bgra.insert(bgra.end(), {blue, green, red, 0});
      Samples y(64, 2), u(32, 1), v(32, 1);
      convertToI420(viewOf(bgra.data(), 64, 2, 256), y, u, v);
      const Yuv wanted = exact(red, green, blue);
      const bool isGrey = red == green && green == blue;
      ASSERT_NEAR(y.at(63, 1), wanted.y, isGrey ? 0.5 : 0.71);
      ASSERT_NEAR(u.at(31, 0), wanted.u, isGrey ? 1e-9 : 0.51);
      ASSERT_NEAR(v.at(31, 0), wanted.v, isGrey ? 1e-9 : 0.51);
    }
  });
}

TEST(RgbToYuv, IsExactWithinRoundingAtEveryEvenSize) {
  std::mt19937 random(7);
  onEveryTarget([&random] {
    double error = 0;
    int count = 0;
    for (const int width : {2, 14, 16, 18, 30, 32, 34, 62, 64, 66, 126, 130, 190}) {
      for (const int height : {2, 6}) {
        SCOPED_TRACE(testing::Message() << width << "x" << height);
        const std::ptrdiff_t stride = width * 4 + 4;
        Bytes bgra(static_cast<std::size_t>(stride * height));
        for (std::uint8_t& byte : bgra) byte = static_cast<std::uint8_t>(random());
        const int columns = width / 2;
        const int rows = height / 2;
        Samples y(width, height), u(columns, rows), v(columns, rows);
        convertToI420(viewOf(bgra.data(), width, height, stride), y, u, v);
        const auto exactAt = [&](int column, int row) {  // beyond the edge the edge goes on
          const std::uint8_t* p = bgra.data() + row * stride + std::max(column, 0) * 4;
          return exact(p[2], p[1], p[0]);
        };
        for (int row = 0; row < height; ++row) {
          for (int x = 0; x < width; ++x) ASSERT_NEAR(y.at(x, row), exactAt(x, row).y, 0.71);
          ASSERT_EQ(y.at(width, row), 7);
        }
        for (int row = 0; row < rows; ++row) {
          for (int x = 0; x < columns; ++x) {
            Yuv sum{0, 0, 0};
            for (const int offset : {-1, 0, 0, 1}) {
              for (const int line : {row * 2, row * 2 + 1}) {
                sum.u += exactAt(x * 2 + offset, line).u / 8;
                sum.v += exactAt(x * 2 + offset, line).v / 8;
              }
            }
            ASSERT_NEAR(u.at(x, row), sum.u, 1.06) << x;
            ASSERT_NEAR(v.at(x, row), sum.v, 1.06) << x;
            error += u.at(x, row) - sum.u + v.at(x, row) - sum.v;
            count += 2;
          }
          ASSERT_TRUE(u.at(columns, row) == 7 && v.at(columns, row) == 7);
        }
        // The other channel order, the other way up, the other layout: the same samples.
        Bytes rgba;
        for (std::ptrdiff_t row = height; row-- > 0;)
          rgba.insert(rgba.end(), bgra.begin() + row * stride, bgra.begin() + (row + 1) * stride);
        for (std::size_t i = 0; i < rgba.size(); i += 4) std::swap(rgba[i], rgba[i + 2]);
        Samples same(width, height), uv(columns * 2, rows);
        convertToNV12(
            viewOf(rgba.data() + (height - 1) * stride, width, height, -stride, PixelLayout::rgba),
            same, uv);
        ASSERT_EQ(same.bytes, y.bytes);
        for (int x = 0; x < columns; ++x) {
          ASSERT_EQ(uv.at(x * 2, rows - 1), u.at(x, rows - 1));
          ASSERT_EQ(uv.at(x * 2 + 1, rows - 1), v.at(x, rows - 1));
        }
      }
    }
    EXPECT_NEAR(error / count, 0, 0.02);
  });
}

}  // namespace
}  // namespace lumora
