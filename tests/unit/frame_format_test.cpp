// Frames in other formats than RGBA: the words that name them, their records, scaling and
// preparation of their planes for an encoder.

#include <cmath>
#include <fstream>

#include "app/options.h"
#include "base/big_endian.h"
#include "client/records.h"
#include "codec/libav_encoder.h"
#include "encode/pixel_buffer.h"
#include "picture/encoder_picture.h"
#include "picture/jpeg.h"
#include "picture/system_image_converter.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

FrameFormat format(const std::string& words) { return parseFrameFormat(words).value(); }

TEST(FrameFormat, LetsEachPropertyBeSetOnce) {
  using enum FrameEncoding;
  constexpr PixelFormat rgbPixels{PixelLayout::bgra, ColourMatrix::bt709, false};
  EXPECT_EQ(format("rgba"), FrameFormat{});
  EXPECT_EQ(format("bgra,top"), (FrameFormat{bgra, true, rgbPixels}));
  EXPECT_EQ(format("rgb24"), (FrameFormat{rgb24, true, rgbPixels}));
  EXPECT_EQ(format("bgr24,bottom"), (FrameFormat{bgr24, false, rgbPixels}));
  EXPECT_EQ(format("nv12"),
            (FrameFormat{nv12, true, {PixelLayout::nv12, ColourMatrix::bt601, false}}));
  EXPECT_EQ(format("i420,full,bottom,bt709"),
            (FrameFormat{i420, false, {PixelLayout::i420, ColourMatrix::bt709, true}}));
  for (const auto& [word, encoding] : {std::pair{"nv21", nv21}, {"yuyv", yuyv}, {"uyvy", uyvy}}) {
    EXPECT_EQ(format(word),
              (FrameFormat{encoding, true, {PixelLayout::i420, ColourMatrix::bt601, false}}));
    EXPECT_EQ(format(word + std::string(",limited,bt601,top")), format(word));
  }
  EXPECT_EQ(format("mjpeg"),
            (FrameFormat{mjpeg, true, {PixelLayout::i420, ColourMatrix::bt601, true}}));
  const char* invalid[] = {"",
                           "NV12",
                           "top",
                           "nv12,",
                           ",nv12",
                           "nv12,,top",
                           "nv12, top",
                           "nv12,nv12",
                           "nv12,top,top",
                           "nv12,top,bottom",
                           "nv12,full,limited",
                           "rgba,bt709",
                           "rgb24,full",
                           "mjpeg,bt601",
                           "mjpeg,full",
                           "nv12,bt2020"};
  for (const char* words : invalid) EXPECT_FALSE(parseFrameFormat(words)) << words;
  Environment environment{{"TAVO_VIDEO_TOKEN", "abcdefghijklmnop"}, {"TAVO_FRAME_FORMAT", "nv21"}};
  EXPECT_EQ(options({}, environment)->frameFormat, format("nv21"));
  environment["TAVO_FRAME_FORMAT"] = "";
  EXPECT_FALSE(options({}, environment));
}

TEST(FrameFormat, KnowsTheLengthOfItsRecords) {
  using enum FrameEncoding;
  for (const FrameEncoding encoding : {rgba, bgra, rgb24, bgr24, nv12, nv21, i420, yuyv, uyvy}) {
    const std::uint64_t bytes = uncompressedBytes(encoding, {4, 2});
    for (const std::uint64_t other : {bytes - 1, bytes, bytes + 1})
      EXPECT_EQ(isPictureLength(encoding, {4, 2}, other), other == bytes) << bytes;
    EXPECT_EQ(referenceBytes(encoding), 8u);
  }
  EXPECT_EQ(referenceBytes(mjpeg), 16u);
  const std::tuple<PictureSize, std::uint64_t, bool> jpegs[] = {
      {{4, 2}, 1, false},     {{4, 2}, 2, true},          {{4, 2}, 65536, true},
      {{4, 2}, 65537, false}, {{640, 360}, 460800, true}, {{640, 360}, 460801, false}};
  for (const auto& [size, bytes, isValid] : jpegs)
    EXPECT_EQ(isPictureLength(mjpeg, size, bytes), isValid) << bytes;
}

// Memory that a parent shares with the service.
struct FakeMemory final : FrameMemory {
  std::uint64_t size() const override { return sizeof(bytes); }
  std::shared_ptr<const std::uint8_t[]> pixels(std::uint64_t id, std::uint64_t offset) override {
    return {bytes + offset, [this, id](const std::uint8_t*) { released = id; }};
  }
  std::uint8_t bytes[4 * framePageBytes] = {};
  std::uint64_t released = 0;
};

struct FormattedFrames : testing::Test {
  void restart(const std::string& words) {
    probe = VideoEncoderProbe({.token = "0123456789abcdef", .frameFormat = format(words)}, memory);
    probe.becomeReady();
  }
  void put(std::uint64_t id, const Bytes& payload, std::uint16_t width = 4) {
    probe.put(client::recordHeader(static_cast<std::uint32_t>(payload.size()), width, 2, id));
    probe.put(payload);
  }
  static Bytes fields(std::uint64_t first, std::uint64_t second) {
    Bytes bytes;
    appendBE(bytes, first);
    appendBE(bytes, second);
    return bytes;
  }
  std::shared_ptr<FakeMemory> memory = std::make_shared<FakeMemory>();
  VideoEncoderProbe probe;
};

TEST_F(FormattedFrames, EndTheRunIfTheirLengthIsWrong) {
  // NV12 of 4 × 2 has 12 bytes and a reference 8, so 16 are too many.
  const Bytes pixels(12);
  restart("nv12");
  put(1, pixels);
  put(2, fields(framePageBytes, 0));
  EXPECT_EQ(probe.readAll(), "invalid raw frame header");
  EXPECT_EQ(probe.statistics()["dropped_raw"], 1);
  const Bytes references[] = {fields(framePageBytes, 1), fields(framePageBytes, 65537),
                              fields(framePageBytes, 3 * framePageBytes + 1), fields(0, 9)};
  for (const Bytes& reference : references) {
    restart("mjpeg");
    put(1, reference);
    EXPECT_EQ(probe.readAll(), "invalid raw frame header");
  }
}

TEST_F(FormattedFrames, AreDecodedOnlyIfNeededAndDroppedIfTheyCannotBe) {
  restart("mjpeg");
  const Bytes good = {0xFF, 0xD8};
  const Bytes bad = {0, 0xD8};
  const auto decoded = [&] { return probe.decoder->records.size(); };
  // Each runs when the reader has read everything.
  std::deque<Work> steps = {[&] { put(1, good); },
                            [&] {
                              EXPECT_EQ(decoded(), 1u);  // it might have been needed
                              put(2, good);
                            },
                            [&] {
                              EXPECT_EQ(decoded(), 1u);
                              probe.connectClient();
                              put(3, bad);
                              put(4, good);
                            },
                            [&] {
                              EXPECT_EQ(decoded(), 2u);  // 4 came while 3 was in flight
                              EXPECT_TRUE(probe.encoders->sessions.empty());
                              put(5, good);
                            }};
  probe.process->beforeRead = [&] {
    if (!probe.process->input.empty() || steps.empty()) return;
    probe.run();
    const Work step = std::move(steps.front());
    steps.pop_front();
    step();
  };
  EXPECT_EQ(probe.readAll(), "");
  expectKeys(probe.statistics(), {{"dropped_raw", 4}, {"encode_inflight", 1}});
  EXPECT_EQ(probe.lastSession().submitted.size(), 1u);
}

// Frame 1 finds no take and no client. Frame 2 is read before the command that starts a take is
// handled.
TEST_F(FormattedFrames, AreDecodedWhileACommandWaits) {
  restart("mjpeg");
  const Json start = {{"type", "record_start"}, {"id", takeID}, {"path", takePath}};
  put(1, {0xFF, 0xD8});
  probe.put(client::commandRecord(start.dump()));
  probe.process->beforeRead = [&, isFirst = true]() mutable {
    if (!probe.process->input.empty() || !std::exchange(isFirst, false)) return;
    probe.queue->runNext();
    EXPECT_FALSE(probe.isRawBusy());
    put(2, {0xFF, 0xD8});
  };
  EXPECT_EQ(probe.readAll(), "");
  EXPECT_EQ(probe.lastSession().submitted.size(), 1u);
  probe.answer(keySample());
}

TEST_F(FormattedFrames, ReleaseAJPEGBeforeItIsDecodedAndPlanesOnceTheyAreEncoded) {
  restart("mjpeg");
  probe.connectClient();
  memory->bytes[framePageBytes] = 9;
  put(7, fields(framePageBytes, 2));
  probe.decoder->onDecode = [&] { EXPECT_EQ(memory->released, 7u); };
  probe.dispatch->detached.at(0)();
  EXPECT_EQ(probe.decoder->records.at(0), (Bytes{9, 0}));

  restart("nv12");
  probe.connectClient();
  memory->released = 0;
  Bytes offset = fields(framePageBytes, 0);
  offset.resize(8);
  put(7, offset);
  probe.readAll();
  ASSERT_EQ(probe.lastSession().pending.size(), 1u);
  EXPECT_EQ(memory->released, 0u);
  probe.lastSession().pending[0].first.reset();
  EXPECT_EQ(memory->released, 7u);
}

// A picture whose samples are `paint(plane, x, y)`.
struct Planes {
  Planes(const PixelFormat& format, PictureSize size,
         const std::function<int(std::size_t, std::int64_t, std::int64_t)>& paint)
      : bytes(pictureBytes(format.layout, size)), picture(pictureAt(bytes.data(), format, size)) {
    std::size_t plane = 0;
    for (const PlaneShape& shape : planesOf(format.layout)) {
      for (std::int64_t y = 0; y < size.height / shape.rows; ++y) {
        for (std::int64_t x = 0; x < size.width / shape.columns; ++x) {
          for (int channel = 0; channel < shape.channels; ++channel) {
            const auto [samples, stride] = picture.planes[plane];
            samples[y * stride + x * shape.channels + channel] =
                static_cast<std::uint8_t>(paint(plane + static_cast<std::size_t>(channel), x, y));
          }
        }
      }
      ++plane;
    }
  }
  // Sample of luma (0), U (1) or V (2).
  int at(std::size_t component, std::int64_t x, std::int64_t y) const {
    return sampleOf(picture, component, x, y);
  }
  static int sampleOf(const PictureView& of, std::size_t component, std::int64_t x,
                      std::int64_t y) {
    const auto shapes = planesOf(of.format.layout);
    const std::size_t plane = std::min(component, shapes.size() - 1);
    const auto [samples, stride] = of.planes[plane];
    return samples[y * stride + x * shapes[plane].channels +
                   static_cast<std::int64_t>(component - plane)];
  }
  Bytes bytes;
  Picture picture;
};

constexpr PixelFormat nv12{PixelLayout::nv12, ColourMatrix::bt601, false};
constexpr PixelFormat i420{PixelLayout::i420, ColourMatrix::bt601, false};
constexpr PixelFormat full{PixelLayout::i420, ColourMatrix::bt601, true};

RawFrame frameOf(const Planes& planes) {
  const PictureSize size = planes.picture.size;
  return {size.width, size.height,   1, {planes.bytes.data(), [](const std::uint8_t*) {}},
          0,          planes.picture};
}

std::shared_ptr<PixelBuffer> convert(const Planes& planes, PictureSize size, Placement placement) {
  Failures none;
  FakeSession session(static_cast<int>(size.width), static_cast<int>(size.height), none);
  session.pool = MemoryPixelBufferPool(size, planes.picture.format, PicturePool::make());
  const auto images = std::make_shared<SystemImageConverter>();
  auto buffer = pixelBuffer(frameOf(planes), session, placement, images);
  EXPECT_TRUE(buffer->fill());
  return buffer;
}

// Chroma stays where it was: a ramp over the picture is a ramp again, with the same values at the
// same places of the picture.
TEST(PlanarConversion, KeepsLumaAndChromaInPlaceInBothLayouts) {
  const auto rampAt = [](double x, double y) { return 20 + x / 4 + y * 3 / 4; };
  const auto ramps = [&](std::size_t component, std::int64_t column, std::int64_t row) {
    const auto x = static_cast<double>(column);
    const auto y = static_cast<double>(row);
    // A chroma sample lies at its left column, between its rows.
    return static_cast<int>(
        std::lround(component == 0 ? rampAt(x, y) : rampAt(2 * x, 2 * y + 0.5)));
  };
  for (const PixelFormat& layout : {nv12, i420}) {
    for (const auto& [width, height] : {std::pair{160, 90}, {128, 72}, {58, 34}, {386, 240}}) {
      const auto buffer = convert({layout, {320, 180}, ramps}, {width, height}, Placement::stretch);
      const double across = 320.0 / width;
      const double down = 180.0 / height;
      for (int y = height / 4; y < height * 3 / 4; ++y) {
        for (int x = width / 4; x < width * 3 / 4; ++x) {
          const double left = (x + 0.5) * across - 0.5;
          ASSERT_NEAR(Planes::sampleOf(buffer->picture(), 0, x, y),
                      rampAt(left, (y + 0.5) * down - 0.5), 1.3)
              << width;
          if (x % 2 != 0 || y % 2 != 0) continue;
          for (const std::size_t component : {1, 2}) {
            ASSERT_NEAR(Planes::sampleOf(buffer->picture(), component, x / 2, y / 2),
                        rampAt(left, (y + 1) * down - 0.5), 1.3)
                << width;
          }
        }
      }
    }
  }
}

TEST(PlanarConversion, LeavesBlackBarsAndGivesSharedChromaToThePicture) {
  const auto colours = [](std::size_t component, std::int64_t, std::int64_t) {
    return component == 0 ? 90 : component == 1 ? 60 : 200;
  };
  for (const PixelFormat& layout : {nv12, i420, full}) {
    // A picture of 67 × 50 from column 16 and of 37 columns from 31: an odd and an even edge.
    for (const PictureSize camera : {PictureSize{134, 100}, {74, 100}}) {
      const PictureRectangle inner = fitRectangle(camera, {100, 50});
      ASSERT_EQ(inner.size.width % 2, 1);
      const auto buffer = convert({layout, camera, colours}, {100, 50}, Placement::aspectFit);
      const auto at = [&](std::size_t component, std::int64_t x) {
        return Planes::sampleOf(buffer->picture(), component, x, 20);
      };
      for (std::int64_t x = 0; x < 100; ++x) {
        const bool isInside = x >= inner.left && x < inner.left + inner.size.width;
        ASSERT_EQ(at(0, x), isInside ? 90 : layout.fullRange ? 0 : 16) << x;
      }
      for (std::int64_t x = 0; x < 50; ++x) {
        const bool isInside = 2 * x + 1 >= inner.left && 2 * x < inner.left + inner.size.width;
        ASSERT_EQ(at(1, x), isInside ? 60 : 128) << x;
        ASSERT_EQ(at(2, x), isInside ? 200 : 128) << x;
      }
    }
  }
}

TEST(PlanarConversion, ChangesLayoutRangeAndRowOrderForTheEncoder) {
  const auto steps = [](std::size_t component, std::int64_t x, std::int64_t y) {
    return static_cast<int>((x * 5 + y * 60 + static_cast<std::int64_t>(component) * 9) % 256);
  };
  for (const PixelLayout from : {PixelLayout::nv12, PixelLayout::i420}) {
    for (const bool isFull : {false, true}) {
      for (const PixelLayout to : {PixelLayout::nv12, PixelLayout::i420}) {
        for (const bool isTurned : {false, true}) {
          const Planes source({from, ColourMatrix::bt601, isFull}, {102, 6}, steps);
          Planes prepared({to, ColourMatrix::bt601, false}, {102, 6},
                          [](std::size_t, std::int64_t, std::int64_t) { return 0; });
          const PictureView shown = source.picture;
          fillEncoderPicture(isTurned ? upsideDown(shown) : shown, prepared.picture);
          for (const std::size_t component : {0, 1, 2}) {
            const std::int64_t scale = component == 0 ? 1 : 2;
            for (std::int64_t y = 0; y < 6 / scale; ++y) {
              for (std::int64_t x = 0; x < 102 / scale; ++x) {
                const double sample = source.at(component, x, isTurned ? 6 / scale - 1 - y : y);
                const double limited =
                    component == 0 ? 16 + sample * 219 / 255 : 128 + (sample - 128) * 224 / 255;
                ASSERT_NEAR(prepared.at(component, x, y), isFull ? limited : sample,
                            isFull ? 0.502 : 0)
                    << component << " " << x << " " << y;
              }
            }
          }
        }
      }
    }
  }
}

Bytes jpegOf(const std::string& name) {
  std::ifstream file(LUMORA_JPEGS "/" + name, std::ios::binary);
  return {std::istreambuf_iterator(file), {}};
}

TEST(JpegDecoder, DecodesEachPictureByItselfAndOnlyAsAWhole) {
  const PictureSize size{64, 32};
  const auto decode = [&](JpegDecoder& decoder, const Bytes& jpeg) {
    Bytes memory(pictureBytes(PixelLayout::i420, size, rowAlignment));
    const bool isDecoded =
        decoder.decode(jpeg, pictureAt(memory.data(), {PixelLayout::i420}, size, rowAlignment));
    return isDecoded ? memory : Bytes();
  };
  const Bytes bare = jpegOf("no_huffman_tables");
  const Bytes progressive = jpegOf("progressive");
  JpegDecoder fresh, used;
  const Bytes wanted = decode(fresh, bare);
  EXPECT_FALSE(wanted.empty());
  EXPECT_FALSE(decode(used, progressive).empty());  // has tables of its own
  EXPECT_EQ(decode(used, bare), wanted);
  // Ends properly in front of each scan but the first.
  const Bytes scan = {0xFF, 0xDA};
  int scans = 0;
  for (auto at = progressive.begin();; ++at) {
    at = std::search(at, progressive.end(), scan.begin(), scan.end());
    if (at == progressive.end()) break;
    if (++scans == 1) continue;
    Bytes cut(progressive.begin(), at);
    cut.insert(cut.end(), {0xFF, 0xD9});
    EXPECT_TRUE(decode(used, cut).empty()) << scans;
  }
  EXPECT_GT(scans, 3);
}

}  // namespace
}  // namespace lumora
