// Frame conversion with the real resampler and libyuv, and the real encoders behind sessions.

#include <cmath>
#include <numbers>

#include "codec/libav_encoder.h"
#include "encode/pixel_buffer.h"
#include "encode/session_settings.h"
#include "h264/nal_units.h"
#include "picture/system_image_converter.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

struct Pixel {
  std::uint8_t b, g, r, a;
  bool operator==(const Pixel&) const = default;
  bool isNear(const Pixel& other, int most) const {
    return std::abs(b - other.b) <= most && std::abs(g - other.g) <= most &&
           std::abs(r - other.r) <= most && std::abs(a - other.a) <= most;
  }
};

std::uint8_t* writable(const RawFrame& frame) {
  return const_cast<std::uint8_t*>(frame.rgba.get());
}

RawFrame makeFrame(int width, int height, std::uint8_t value,
                   const std::shared_ptr<PicturePool>& pool = PicturePool::make()) {
  const auto bytes = static_cast<std::size_t>(width * height * 4);
  RawFrame frame{width, height, 1, pool->allocate(bytes), 0};
  std::fill_n(writable(frame), bytes, value);
  return frame;
}

struct Converted {
  std::shared_ptr<PixelBuffer> buffer;
  Pixel at(std::int64_t x, std::int64_t y) const {
    const auto [view, order] = buffer->picture();
    const std::uint8_t* p = view.pixels + y * view.stride + x * 4;
    return order == ChannelOrder::bgra ? Pixel{p[0], p[1], p[2], p[3]}
                                       : Pixel{p[2], p[1], p[0], p[3]};
  }
};

Converted convert(const RawFrame& frame, int width, int height, Placement placement) {
  Failures none;
  FakeSession session(width, height, none);
  SystemImageConverter images;
  return {pixelBuffer(frame, session, placement, images)};
}

// 190 pixels: no whole number of vectors.
TEST(Conversion, SwapsChannelsFlipsAndKeepsLevelsAtEverySize) {
  RawFrame frame = makeFrame(190, 108, 200);
  const std::uint8_t red[] = {255, 0, 0, 255};  // the bottom half of the picture
  for (int i = 0; i < 190 * 54; ++i) std::copy_n(red, 4, writable(frame) + i * 4);
  struct Case {
    int width, height;
    int tolerance = 0;  // two pixels of a kernel overlap
  };
  const Case sizes[] = {{190, 108}, {64, 36}, {320, 180}, {64, 34},
                        {24, 200},  {10, 10}, {2, 2, 20}};
  for (const auto& [width, height, tolerance] : sizes) {
    const Converted converted = convert(frame, width, height, Placement::stretch);
    for (int x = 0; x < width; ++x) {
      ASSERT_TRUE(converted.at(x, height - 1).isNear({0, 0, 255, 255}, tolerance)) << width;
      ASSERT_TRUE(converted.at(x, height / 4).isNear({200, 200, 200, 200}, tolerance)) << width;
    }
  }
}

TEST(Conversion, AFrameThatIsWrappedIsKeptForItsBuffer) {
  const auto pool = PicturePool::make();
  RawFrame frame = makeFrame(16, 8, 77, pool);
  const std::uint8_t* memory = frame.rgba.get();
  Converted converted = convert(frame, 16, 8, Placement::aspectFit);
  frame = {};
  const RawFrame other = makeFrame(16, 8, 1, pool);
  EXPECT_EQ(converted.at(3, 3), (Pixel{77, 77, 77, 77}));
  converted.buffer.reset();
  EXPECT_EQ(pool->allocate(16 * 8 * 4).get(), memory);
}

// Large enough for two threads, so the rows where they meet are looked at as well.
TEST(Conversion, AspectFitLeavesZeroBars) {
  const Converted unscaled = convert(makeFrame(100, 60, 77), 100, 80, Placement::aspectFit);
  EXPECT_EQ(unscaled.at(50, 9), (Pixel{0, 0, 0, 0}));
  EXPECT_EQ(unscaled.at(50, 10), (Pixel{77, 77, 77, 77}));
  const Converted wide = convert(makeFrame(640, 480, 77), 800, 450, Placement::aspectFit);
  for (int y = 0; y < 450; ++y) {
    for (const int x : {0, 99, 700, 799}) ASSERT_EQ(wide.at(x, y), (Pixel{0, 0, 0, 0})) << y;
    for (const int x : {100, 400, 699}) ASSERT_EQ(wide.at(x, y), (Pixel{77, 77, 77, 77})) << y;
  }
}

// What is left of a sine grating of `period` source pixels after scaling 3:1, 0 to 1.
double amplitudeAfterReduction(double period, bool vertical) {
  constexpr int size = 360;
  RawFrame frame = makeFrame(size, size, 0);
  for (int y = 0; y < size; ++y) {
    for (int x = 0; x < size; ++x) {
      const double phase = 2 * std::numbers::pi * (vertical ? y : x) / period;
      const auto value = static_cast<std::uint8_t>(std::lround(127.5 + 100 * std::cos(phase)));
      std::fill_n(writable(frame) + (y * size + x) * 4, 4, value);
    }
  }
  const Converted converted = convert(frame, size / 3, size / 3, Placement::stretch);
  std::vector<int> values;
  for (int i = 20; i < 100; ++i)
    values.push_back(vertical ? converted.at(60, i).g : converted.at(i, 60).g);
  const auto [least, most] = std::ranges::minmax(values);
  return (most - least) / 200.0;
}

TEST(Conversion, ReductionKeepsWhatFitsAndDoesNotAlias) {
  for (const bool vertical : {false, true}) {
    EXPECT_GT(amplitudeAfterReduction(24, vertical), 0.95);
    EXPECT_GT(amplitudeAfterReduction(12, vertical), 0.8);
    EXPECT_LT(amplitudeAfterReduction(4, vertical), 0.1);
    EXPECT_LT(amplitudeAfterReduction(3.1, vertical), 0.03);  // would fold to a slow wave
    EXPECT_LT(amplitudeAfterReduction(2.3, vertical), 0.1);
  }
}

TEST(LibavEncoder, AnswersEveryPictureAtOnce) {
  for (const auto& [width, height] : {std::pair{640, 360}, {2, 2}, {202, 360}}) {
    std::unique_ptr<LibavEncoder> encoder;
    const auto settings = sessionSettings(SessionKind::preview, {width, height}, 60);
    ASSERT_EQ(LibavEncoder::open(*avcodec_find_encoder_by_name("libx264"), "", PicturePool::make(),
                                 settings, encoder),
              0);
    Bytes picture(static_cast<std::size_t>(width * height * 4), 90);
    for (int time = 1; time <= 130; ++time) {
      std::shared_ptr<const EncodedSample> sample;
      const BufferPicture view{{picture.data(), width, height, width * 4}};
      ASSERT_EQ(encoder->encode(view, time == 30, sample), 0);
      Bytes data(sample->dataLength().value());
      ASSERT_EQ(sample->copyBytes(0, data), 0);
      const NalWalk walk = walkNalUnits(ByteView(data));
      EXPECT_EQ(walk.error, NalWalkError::none);
      // The first, the forced one, and every 60th after it.
      EXPECT_EQ(walk.idr, time == 1 || time == 30 || time == 90) << time;
      EXPECT_EQ(sample->format()->parameterSet(0).bytes[1], 66);  // profile_idc
    }
  }
}

}  // namespace
}  // namespace lumora
