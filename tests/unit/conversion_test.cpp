// Pictures: their sizes, their conversion for sessions and for encoders, and decoding of JPEG.

#include <hwy/targets.h>

#include <cmath>
#include <fstream>
#include <numbers>
#include <random>

#include "encode/pixel_buffer.h"
#include "picture/encoder_picture.h"
#include "picture/system_frame_decoder.h"
#include "picture/system_image_converter.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

constexpr PixelFormat rgba, bgra{.layout = PixelLayout::bgra};
constexpr PixelFormat nv12{.layout = PixelLayout::nv12}, i420{.layout = PixelLayout::i420};
constexpr PixelFormat fullNV12{.layout = PixelLayout::nv12, .fullRange = true};
constexpr PixelFormat fullI420{.layout = PixelLayout::i420, .fullRange = true};

// A component is 0 to 3 for red, green, blue and alpha, or 0 to 2 for luma, U and V.
bool isChroma(const PixelFormat& format, int component) {
  return component > 0 && !isRGB(format.layout);
}

template <typename Byte>
Byte& sampleOf(const BasicPicture<Byte>& picture, int component, int x, int y) {
  const auto shapes = planesOf(picture.format.layout);
  if (picture.format.layout == PixelLayout::bgra && component < 3) component = 2 - component;
  const auto plane = std::min(static_cast<std::size_t>(component), shapes.size() - 1);
  const auto [samples, stride] = picture.planes[plane];
  return samples[y * stride + x * shapes[plane].channels + component - static_cast<int>(plane)];
}

// The value to give to a sample, or to expect of it. If there is none, the sample is not checked.
using Paint = std::function<std::optional<double>(int component, int x, int y)>;

template <typename Visit>
void forEachSample(const PictureView& of, Visit visit) {
  for (int component = 0; component < (isRGB(of.format.layout) ? 4 : 3); ++component) {
    const int step = isChroma(of.format, component) ? 2 : 1;
    for (int y = 0; y < of.size.height / step; ++y)
      for (int x = 0; x < of.size.width / step; ++x) visit(component, x, y);
  }
}

struct Painted {
  Painted(const PixelFormat& format, PictureSize size, const Paint& paint)
      : bytes(pictureBytes(format.layout, size)), picture(pictureAt(bytes.data(), format, size)) {
    forEachSample(picture, [&](auto... at) {
      sampleOf(picture, at...) = static_cast<std::uint8_t>(std::lround(paint(at...).value()));
    });
  }
  Bytes bytes;
  Picture picture;
};

void expectSamples(const PictureView& picture, const Paint& wanted, double tolerance = 0,
                   std::optional<double> ofChroma = std::nullopt) {
  forEachSample(picture, [&](int component, int x, int y) {
    const auto value = testing::Test::HasFailure() ? std::nullopt : wanted(component, x, y);
    if (!value) return;
    const double most =
        isChroma(picture.format, component) ? ofChroma.value_or(tolerance) : tolerance;
    EXPECT_NEAR(sampleOf(picture, component, x, y), *value, most)
        << picture.size.width << " wide, component " << component << " at " << x << ", " << y;
  });
}

std::shared_ptr<PixelBuffer> convert(const PictureView& picture, PictureSize size,
                                     Placement placement = Placement::stretch) {
  Failures none;
  FakeSession session(2, 2, none);
  session.pool = MemoryPixelBufferPool(size, picture.format, PicturePool::make());
  const auto images = std::make_shared<SystemImageConverter>();
  auto buffer = pixelBuffer({.picture = picture}, session, placement, images);
  EXPECT_TRUE(buffer->fill());
  return buffer;
}

TEST(PictureSize, HasEvenSidesWithinThePreviewAndIsNeverEnlarged) {
  const PictureSize preview{1280, 720};
  EXPECT_EQ(previewEncodeSize({1918, 1080}, preview, false), (PictureSize{1278, 720}));
  EXPECT_EQ(previewEncodeSize({1918, 1080}, preview, true), preview);
  EXPECT_EQ(previewEncodeSize({1918, 1080}, {1281, 720}, true), (PictureSize{1278, 720}));
  EXPECT_EQ(previewEncodeSize({1278, 718}, preview, true), (PictureSize{1278, 718}));
  EXPECT_EQ(previewEncodeSize({1920, 2}, {640, 360}, false), (PictureSize{640, 2}));
}

TEST(PictureSize, CentresAPictureThatIsFitted) {
  EXPECT_EQ(fitRectangle({1366, 768}, {640, 360}), (PictureRectangle{0, 0, {640, 360}}));
  EXPECT_EQ(fitRectangle({1920, 2}, {640, 360}), (PictureRectangle{0, 179, {640, 1}}));
  EXPECT_EQ(fitRectangle({1080, 1920}, {1080, 720}), (PictureRectangle{337, 0, {405, 720}}));
}

// Runs with each instruction set that Highway has for this machine.
struct Conversion : testing::TestWithParam<std::int64_t> {
  void SetUp() override { hwy::SetSupportedTargetsForTest(GetParam()); }
  void TearDown() override { hwy::SetSupportedTargetsForTest(0); }
};
using EncoderPicture = Conversion;
const auto targets = testing::ValuesIn(hwy::SupportedAndGeneratedTargets());
const auto nameOf = [](const auto& test) { return std::string(hwy::TargetName(test.param)); };
INSTANTIATE_TEST_SUITE_P(With, Conversion, targets, nameOf);
INSTANTIATE_TEST_SUITE_P(With, EncoderPicture, targets, nameOf);

TEST_P(Conversion, KeepsSamplesInPlaceAndPutsTheTopRowFirst) {
  for (const PixelFormat& format : {rgba, nv12, i420}) {
    // A ramp that changes by `down` from top to bottom. Only samples within `reach` of the middle
    // have values. `reach` is a fraction of the width and of the height.
    const auto ramp = [&](PictureSize in, double down, double reach) -> Paint {
      return [=](int component, double x, double y) {
        // A chroma sample lies in the left of its two columns, and halfway between its two rows.
        if (isChroma(format, component)) x *= 2, y = 2 * y + 0.5;
        x = (x + 0.5) / static_cast<double>(in.width) - 0.5;
        y = (y + 0.5) / static_cast<double>(in.height) - 0.5;
        const double value = 120 + 5 * component + 80 * x + down * y;
        return std::max(std::abs(x), std::abs(y)) < reach ? std::optional(value) : std::nullopt;
      };
    };
    const Painted bottomFirst(format, {320, 180}, ramp({320, 180}, -135, 0.5));
    for (const PictureSize size :
         {PictureSize{160, 90}, {128, 72}, {58, 34}, {386, 240}, {40, 10}}) {
      const auto buffer = convert(upsideDown(bottomFirst.picture), size);
      expectSamples(buffer->picture(), ramp(size, 135, 0.25), 1.3);
    }
  }
}

TEST_P(Conversion, KeepsLevelsAndMakesBlackBars) {
  const auto levels = [](int i, auto...) { return i == 0 ? 255 : i == 1 ? 0 : 200; };
  // The left bar's width is even in the first case, odd in the second. The third is not scaled.
  const std::pair<PictureSize, PictureSize> sizes[] = {
      {{134, 100}, {100, 50}}, {{74, 100}, {100, 50}},   {{100, 22}, {100, 50}},
      {{190, 108}, {64, 36}},  {{190, 108}, {320, 180}}, {{190, 108}, {24, 200}},
      {{190, 108}, {10, 10}},  {{190, 108}, {2, 2}}};
  for (const PixelFormat& format : {rgba, nv12, i420, fullI420}) {
    for (const auto& [camera, size] : sizes) {
      const Painted plain(format, camera, levels);
      const PictureRectangle inner = fitRectangle(camera, size);
      const auto wanted = [&](int component, int x, int y) {
        const bool isHalved = isChroma(format, component);
        const int step = isHalved ? 2 : 1;
        // A chroma sample that bar and picture share belongs to the picture.
        const bool isInside =
            x * step + step > inner.left && x * step < inner.left + inner.size.width &&
            y * step + step > inner.top && y * step < inner.top + inner.size.height;
        const int black = isHalved ? 128 : isRGB(format.layout) || format.fullRange ? 0 : 16;
        return isInside ? levels(component) : black;
      };
      const auto buffer = convert(plain.picture, size, Placement::aspectFit);
      expectSamples(buffer->picture(), wanted);
    }
  }
}

TEST_P(Conversion, KeepsDetailThatFitsAndDoesNotAlias) {
  // The period in source pixels, the amplitude after conversion (it was 100), and the tolerance of
  // the samples. Without a filter, the last period would show as a slow wave.
  for (const auto& [period, left, tolerance] :
       {std::tuple{12.0, 90.0, 10.0}, {4.0, 0.0, 10.0}, {3.1, 0.0, 3.0}}) {
    for (const bool isVertical : {false, true}) {
      const auto grating = [isVertical, step = 2 * std::numbers::pi / period](
                               double amplitude, int scale, double reach) -> Paint {
        return [=](int, double x, double y) {
          const double at = ((isVertical ? y : x) + 0.5) * scale - 180;
          const double value = 127.5 + amplitude * std::cos(step * at);
          return std::abs(at) < reach ? std::optional(value) : std::nullopt;
        };
      };
      const Painted source(rgba, {360, 360}, grating(100, 1, 180));
      const auto buffer = convert(source.picture, {120, 120});
      expectSamples(buffer->picture(), grating(left, 3, 120), tolerance);
    }
  }
}

TEST_P(EncoderPicture, HasTheLayoutAndTheRangeOfTheEncoderAndTheTopRowFirst) {
  const PictureSize size{102, 6};
  for (const PixelFormat& from : {nv12, i420, fullNV12, fullI420}) {
    const Painted source(from, size, [](int component, int x, int y) {
      return (x * 5 + y * 60 + component * 9) % 256;
    });
    for (const PictureView& shown : {PictureView(source.picture), upsideDown(source.picture)}) {
      for (const PixelFormat& to : {nv12, i420}) {
        const Painted made(to, size, [](auto...) { return 0; });
        fillEncoderPicture(shown, made.picture);
        const auto wanted = [&](int component, int x, int y) {
          const double sample = sampleOf(shown, component, x, y);
          if (!from.fullRange) return sample;
          return component == 0 ? 16 + sample * 219 / 255 : 128 + (sample - 128) * 224 / 255;
        };
        expectSamples(made.picture, wanted, from.fullRange ? 0.502 : 0);
      }
    }
  }
}

// Component 0 (luma), 1 (U) or 2 (V) of a pixel, in real arithmetic.
double exact(int component, double red, double green, double blue) {
  const double y = 0.2126 * red + 0.7152 * green + 0.0722 * blue;
  if (component == 0) return 16 + y * 219 / 255;
  const double difference = component == 1 ? (blue - y) / 1.8556 : (red - y) / 1.5748;
  return 128 + difference * 224 / 255;
}

// Expects the samples of the encoder's picture to be exact within these tolerances, and the columns
// to its right to stay as they were. Returns the sum of the signed errors of chroma.
double expectExact(const PixelFormat& from, const PixelFormat& to, PictureSize size,
                   const Paint& paint, double luma, double chroma) {
  const PictureSize wider{size.width + 2, size.height};
  const Painted source(from, wider, paint), made(to, wider, [](auto...) { return 7; });
  Picture shown = source.picture, filled = made.picture;
  shown.size = filled.size = size;
  fillEncoderPicture(shown, filled);
  const auto exactAt = [&](int component, int x, int y) {
    const auto level = [&](int i) { return sampleOf(shown, i, std::max(x, 0), y); };
    return exact(component, level(0), level(1), level(2));
  };
  double error = 0;
  const auto wanted = [&](int component, int x, int y) {
    if (x >= size.width / (component == 0 ? 1 : 2)) return 7.0;
    if (component == 0) return exactAt(0, x, y);
    double mean = 0;
    for (const int offset : {-1, 0, 0, 1})  // left of the picture, its first column repeats
      for (const int row : {2 * y, 2 * y + 1}) mean += exactAt(component, 2 * x + offset, row) / 8;
    error += sampleOf(filled, component, x, y) - mean;
    return mean;
  };
  expectSamples(made.picture, wanted, luma, chroma);
  return error;
}

TEST_P(EncoderPicture, IsExactWithinRoundingForAnyColourAtManyWidthsAndHasNoChromaForGreys) {
  std::mt19937 random(7);
  const Paint noise = [&](auto...) { return random() % 256; };
  for (int i = 0; i < 18 * 18 * 18; ++i) {
    const int colour[] = {i % 18 * 15, i / 18 % 18 * 15, i / 324 * 15, 0};
    const bool isGrey = colour[0] == colour[1] && colour[1] == colour[2];
    const Paint plain = [&](int component, auto...) { return colour[component]; };
    expectExact(bgra, i420, {64, 2}, plain, isGrey ? 0.5 : 0.71, isGrey ? 1e-9 : 0.51);
  }
  double error = 0, count = 0;
  for (const int width : {2, 14, 16, 18, 30, 32, 34, 62, 64, 66, 126, 130, 190}) {
    for (const auto& [from, to] : {std::pair{bgra, i420}, {bgra, nv12}, {rgba, i420}}) {
      error += expectExact(from, to, {width, 6}, noise, 0.71, 1.06);
      count += width * 3;
    }
  }
  EXPECT_NEAR(error / count, 0, 0.02);
}

TEST(JpegDecoder, RefusesIncompleteOrUnexpectedPicturesAndKeepsNothingOfThePreviousOne) {
  const auto read = [](const char* name) {
    std::ifstream file(std::string(LUMORA_JPEGS "/") + name, std::ios::binary);
    EXPECT_TRUE(file) << name;
    return Bytes(std::istreambuf_iterator(file), {});
  };
  const auto decode = [](SystemFrameDecoder& by, const Bytes& jpeg, PictureSize size = {64, 32}) {
    return by.decode(FrameEncoding::mjpeg, i420, size, jpeg);
  };
  const Bytes whole = read("420"), bare = read("no_huffman_tables"),
              progressive = read("progressive");
  ASSERT_GT(whole.size(), 20u);
  SystemFrameDecoder fresh(PicturePool::make()), used(PicturePool::make());
  EXPECT_TRUE(decode(used, progressive).memory);  // no later picture may use its Huffman tables
  const auto wanted = decode(fresh, bare), behind = decode(used, bare);
  ASSERT_TRUE(wanted.memory && behind.memory);
  expectSamples(behind.picture, [&](auto... at) { return sampleOf(wanted.picture, at...); });
  // A picture that lacks scans is refused, though it has an end marker.
  int scans = 0;
  for (std::size_t at = 1; at < progressive.size(); ++at) {
    if (progressive[at - 1] != 0xFF || progressive[at] != 0xDA || ++scans == 1) continue;
    Bytes cut = progressive;
    cut.resize(at);
    cut.push_back(0xD9);
    EXPECT_FALSE(decode(used, cut).memory) << "without scan " << scans;
  }
  EXPECT_GT(scans, 3);
  Bytes trailed = whole, stuffed = progressive, cut = whole;
  trailed.resize(whole.size() + 100);
  stuffed.insert(stuffed.end() - 2, 100, 0);
  for (const Bytes& good : {trailed, stuffed, read("422")})
    EXPECT_TRUE(decode(used, good).memory) << good.size() << " bytes";
  cut.resize(whole.size() - 20);
  Bytes ended = cut;
  ended.insert(ended.end(), {0xFF, 0xD9});
  for (const Bytes& broken : {cut, ended, Bytes{0xFF, 0xD8}, read("grey"), read("444")})
    EXPECT_FALSE(decode(used, broken).memory) << broken.size() << " bytes";
  EXPECT_FALSE(decode(used, whole, {64, 64}).memory);
}

}  // namespace
}  // namespace lumora
