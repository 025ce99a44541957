// The preview as ffmpeg decodes it.

#include <algorithm>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using Preview = HelperTest;

constexpr Rgb red{255, 0, 0}, green{0, 255, 0}, blue{0, 0, 255}, grey{90, 120, 150};

TEST_F(Preview, IsUprightInTheRightColoursAndBaselineAtEverySize) {
  struct Case {
    FrameSize camera, preview;
    int frames = 20;
    std::vector<std::string> arguments = {};
  };
  const Case cases[] = {
      {{320, 240}, {320, 240}, 130},
      {{1920, 1080}, {640, 360}},
      {{1080, 1920}, {202, 360}},
      {{640, 480}, {480, 360}},
      {{2, 2}, {2, 2}},
      {{1920, 1080}, {2, 2}, 20, {"--preview-width", "2", "--preview-height", "2"}}};
  for (const auto& [camera, preview, frames, arguments] : cases) {
    SCOPED_TRACE(camera.width);
    start(arguments);
    // A colour for each quarter, or one for all where there is only one sample of chroma.
    const bool isTiny = preview.width == 2;
    const Rgb a = isTiny ? grey : red, b = isTiny ? grey : green, c = isTiny ? grey : blue;
    const auto packets = stream(camera, quarters(camera, a, b, c, grey), frames);
    const auto configuration = client::parseConfiguration(packets.at(0).payload);
    EXPECT_EQ((FrameSize{configuration.width, configuration.height}), preview);
    const std::string file = writeStream(packets);
    expectColours(file, preview,
                  {{0.25, 0.25, a}, {0.75, 0.25, b}, {0.25, 0.75, c}, {0.75, 0.75, grey}});
    const Event seen = probe(file);
    expectKeys(seen, {{"profile", "Constrained Baseline"}, {"has_b_frames", 0}});
    expectKeys(seen, {{"color_range", "tv"}, {"color_space", "bt709"}});
    expectKeys(seen, {{"color_transfer", "iec61966-2-1"}, {"color_primaries", "bt709"}});
    int sinceKey = 0;
    bool configured = false;
    for (const Packet& packet : packets) {
      const bool isFrame = packet.type == Packet::Type::frame;
      // A configuration packet stands before every key frame and nowhere else.
      EXPECT_TRUE(!isFrame || packet.keyframe == configured);
      if (isFrame) sinceKey = packet.keyframe ? 1 : sinceKey + 1;
      EXPECT_LE(sinceKey, 60);
      configured = !isFrame;
    }
  }
}

TEST_F(Preview, FollowsTheCameraToAnotherSize) {
  start();
  Watcher watcher(connectClient());
  feedUntil([&] { return watcher.frames() >= 10; }, {640, 480}, {plain({640, 480}, green)});
  feedUntil([&] { return watcher.frames() >= 30; }, {1280, 720}, {plain({1280, 720}, blue)});
  auto packets = watcher.finish();
  EXPECT_EQ(decodeErrors(writeStream(packets)), "");
  const auto isFrame = [](const Packet& packet) { return packet.type == Packet::Type::frame; };
  const auto last = std::find_if_not(packets.rbegin(), packets.rend(), isFrame);
  packets.erase(packets.begin(), last.base() - 1);
  EXPECT_EQ(client::parseConfiguration(packets.at(0).payload).width, 640);
  expectColours(writeStream(packets), {640, 360}, {{0.5, 0.5, blue}});
}

}  // namespace
}  // namespace lumora::tests
