// Frame conversion with the real resampler and libyuv, and a real encoder.

#include <cmath>
#include <numbers>

#include "codec/libav_encoder.h"
#include "encode/pixel_buffer.h"
#include "encode/recording_keyframe.h"
#include "encode/session_settings.h"
#include "picture/system_image_converter.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Pixel = std::array<std::uint8_t, 4>;  // red, green, blue, alpha

Pixel grey(long value) {
  Pixel pixel{};
  pixel.fill(static_cast<std::uint8_t>(value));
  return pixel;
}

// A frame whose pixel at x, y is `paint(x, y)`. Row 0 is the bottom row.
RawFrame makeFrame(int width, int height, const std::function<Pixel(int x, int y)>& paint) {
  PictureMemory rgba = PicturePool::make()->allocate(static_cast<std::size_t>(width * height * 4));
  for (int i = 0; i < width * height; ++i)
    std::ranges::copy(paint(i % width, i / width), rgba.get() + i * 4);
  return makeRawFrame(std::move(rgba), {width, height}, 1, 0);
}

struct Converted {
  std::shared_ptr<PixelBuffer> buffer;
  Pixel at(std::int64_t x, std::int64_t y) const {
    const PictureView picture = buffer->picture();
    const auto& [samples, stride] = picture.planes[0];
    Pixel pixel{};
    std::copy_n(samples + y * stride + x * 4, 4, pixel.begin());
    if (picture.format.layout == PixelLayout::bgra) std::swap(pixel[0], pixel[2]);
    return pixel;
  }
};

Converted convert(const RawFrame& frame, int width, int height, Placement placement) {
  Failures none;
  FakeSession session(width, height, none);
  const auto images = std::make_shared<SystemImageConverter>();
  const Converted converted{pixelBuffer(frame, session, placement, images)};
  EXPECT_TRUE(converted.buffer->fill());
  return converted;
}

// 190 pixels: no whole number of vectors.
TEST(Conversion, SwapsChannelsFlipsAndKeepsLevelsAtEverySize) {
  const Pixel red = {255, 0, 0, 255};
  const RawFrame frame = makeFrame(190, 108, [&](int, int y) { return y < 54 ? red : grey(200); });
  struct Case {
    int width, height;
    int tolerance = 0;  // two pixels of a kernel overlap
  };
  const Case sizes[] = {{190, 108}, {64, 36}, {320, 180}, {64, 34},
                        {24, 200},  {10, 10}, {2, 2, 20}};
  for (const auto& [width, height, tolerance] : sizes) {
    const Converted converted = convert(frame, width, height, Placement::stretch);
    const auto isNear = [most = tolerance](int a, int b) { return std::abs(a - b) <= most; };
    for (int x = 0; x < width; ++x) {
      ASSERT_TRUE(std::ranges::equal(converted.at(x, height - 1), red, isNear)) << width;
      ASSERT_TRUE(std::ranges::equal(converted.at(x, height / 4), grey(200), isNear)) << width;
    }
  }
}

TEST(Conversion, LeavesBlackBarsAroundAPictureThatIsFitted) {
  const auto paint = [](int, int) { return grey(77); };
  const Converted unscaled = convert(makeFrame(100, 60, paint), 100, 80, Placement::aspectFit);
  EXPECT_EQ(unscaled.at(50, 9), grey(0));
  EXPECT_EQ(unscaled.at(50, 10), grey(77));
  const Converted wide = convert(makeFrame(640, 480, paint), 800, 450, Placement::aspectFit);
  for (int y = 0; y < 450; ++y) {
    for (const int x : {0, 99, 700, 799}) ASSERT_EQ(wide.at(x, y), grey(0)) << y;
    for (const int x : {100, 400, 699}) ASSERT_EQ(wide.at(x, y), grey(77)) << y;
  }
}

// What is left of a sine grating of `period` source pixels after scaling 3:1, 0 to 1.
double amplitudeAfterReduction(double period, bool vertical) {
  const double step = 2 * std::numbers::pi / period;
  const RawFrame grating = makeFrame(360, 360, [&](int x, int y) {
    return grey(std::lround(127.5 + 100 * std::cos(step * (vertical ? y : x))));
  });
  const Converted converted = convert(grating, 120, 120, Placement::stretch);
  std::vector<int> values;
  for (int i = 20; i < 100; ++i)
    values.push_back(vertical ? converted.at(60, i)[1] : converted.at(i, 60)[1]);
  const auto [least, most] = std::ranges::minmax(values);
  return (most - least) / 200.0;
}

TEST(Conversion, KeepsDetailThatFitsAndDoesNotAlias) {
  for (const bool vertical : {false, true}) {
    EXPECT_GT(amplitudeAfterReduction(12, vertical), 0.8);
    EXPECT_LT(amplitudeAfterReduction(4, vertical), 0.1);
    EXPECT_LT(amplitudeAfterReduction(3.1, vertical), 0.03);  // would fold to a slow wave
  }
}

TEST(LibavEncoder, AnswersEveryPictureAtOnce) {
  for (const auto& [width, height] : {std::pair{640, 360}, {2, 2}, {202, 360}}) {
    std::unique_ptr<LibavEncoder> encoder;
    const auto pictures = PicturePool::make();
    const auto settings = sessionSettings(SessionKind::preview, {width, height}, 60);
    ASSERT_EQ(LibavEncoder::open(*avcodec_find_encoder_by_name("libx264"), "", {}, pictures,
                                 settings, encoder),
              0);
    std::shared_ptr<PixelBuffer> buffer;
    ASSERT_EQ(makeGreyBuffer({width, height}, {}, pictures, buffer), 0);
    for (int time = 1; time <= 130; ++time) {
      std::shared_ptr<const EncodedSample> sample;
      ASSERT_EQ(encoder->encode(buffer, time == 30, sample), 0);
      // The first, the forced one, and the 60th behind that.
      EXPECT_EQ(recordingKeyframe(*sample), time == 1 || time == 30 || time == 90) << time;
      EXPECT_EQ(sample->format()->parameterSet(0).bytes[1], 66);  // profile_idc
    }
    // Pictures that could not be made.
    MemoryPixelBufferPool pool({width, height}, {}, pictures);
    const auto answerTo = [&](const Filling& filling) {
      std::shared_ptr<const EncodedSample> sample;
      EXPECT_EQ(pool.create(1, filling, buffer), 0);
      return encoder->encode(std::move(buffer), false, sample);
    };
    EXPECT_EQ(answerTo([](const Picture&) { return false; }), fillingFailed);
    EXPECT_EQ(answerTo([](const Picture&) -> bool { throw std::bad_alloc(); }), AVERROR(ENOMEM));
  }
}

}  // namespace
}  // namespace lumora
