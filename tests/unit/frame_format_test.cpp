// Frames in other formats than RGBA: the words that name them, and their records.

#include "app/options.h"
#include "base/big_endian.h"
#include "client/records.h"
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

}  // namespace
}  // namespace lumora
