// The preview as ffmpeg decodes it.

#include <algorithm>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using Preview = HelperTest;

constexpr Rgb red{255, 0, 0}, green{0, 255, 0}, blue{0, 0, 255}, grey{90, 120, 150};

TEST_F(Preview, IsUprightInTheRightColoursAndBaselineAtEverySize) {
  using Case = std::tuple<FrameSize, FrameSize, Arguments>;  // of the camera, of the preview
  for (const auto& [camera, preview, arguments] :
       {Case{{320, 240}, {320, 240}, {}},
        {{1920, 1080}, {640, 360}, {}},
        {{1080, 1920}, {202, 360}, {}},
        {{640, 480}, {480, 360}, {}},
        {{2, 2}, {2, 2}, {}},
        {{1920, 1080}, {2, 2}, {"--preview-width", "2", "--preview-height", "2"}}}) {
    SCOPED_TRACE(camera.width);
    start(arguments);
    // One colour where there is only one sample of chroma.
    const Quarters colours =
        preview.width == 2 ? Quarters{grey, grey, grey, grey} : Quarters{red, green, blue, grey};
    const auto packets = stream(camera, quarters(camera, colours), 70);
    const auto configuration = client::parseConfiguration(packets.at(0).payload);
    EXPECT_EQ((FrameSize{configuration.width, configuration.height}), preview);
    const std::string file = writeStream(packets);
    expectQuarters(file, preview, preview, colours);
    const Event seen = probe(file);
    expectKeys(seen, {{"profile", "Constrained Baseline"}, {"has_b_frames", 0}});
    expectKeys(seen, {{"color_range", "tv"}, {"color_space", "bt709"}});
    expectKeys(seen, {{"color_transfer", "iec61966-2-1"}, {"color_primaries", "bt709"}});
    // A configuration packet stands before every key frame and nowhere else.
    for (std::size_t i = 1; i < packets.size(); ++i)
      EXPECT_EQ(packets[i].keyframe, packets[i - 1].type == Packet::Type::configuration);
    // There is one once a second.
    EXPECT_GE(std::ranges::count(packets, Packet::Type::configuration, &Packet::type), 2);
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
  expectQuarters(writeStream(packets), {640, 360}, {640, 360}, {blue, blue, blue, blue});
}

}  // namespace
}  // namespace lumora::tests
