// The preview as an independent decoder sees it.

#include "tests/e2e/helper_fixture.h"
#include "tools/watched_stream.h"

namespace lumora::tests {
namespace {

using client::Packet;

using Preview = HelperTest;

client::StreamConfiguration configurationOf(const std::vector<Packet>& packets) {
  return client::parseConfiguration(packets.at(0).payload);
}

constexpr Rgb red{255, 0, 0}, green{0, 255, 0}, blue{0, 0, 255}, grey{90, 120, 150};

TEST_F(Preview, IsUprightAndInTheRightColoursAtEverySize) {
  struct Case {
    FrameSize camera, preview;
    std::vector<std::string> arguments = {};
  };
  const Case cases[] = {{{1920, 1080}, {640, 360}},
                        {{1080, 1920}, {202, 360}},
                        {{640, 480}, {480, 360}},
                        {{2, 2}, {2, 2}},
                        {{1920, 1080}, {2, 2}, {"--preview-width", "2", "--preview-height", "2"}}};
  for (const Case& c : cases) {
    start(c.arguments);
    const auto viewer = connectClient();
    // A colour for each quarter, or one for all where chroma has but one sample.
    const bool tiny = c.preview.width == 2;
    const auto picture = tiny ? plain(c.camera, grey) : quarters(c.camera, red, green, blue, grey);
    const auto packets = stream(*viewer, c.camera, picture, 20);
    EXPECT_EQ(configurationOf(packets).width, c.preview.width);
    EXPECT_EQ(configurationOf(packets).height, c.preview.height);
    const Picture seen = decodeLast(writeStream(packets), c.preview);
    seen.expect(0.25, 0.25, tiny ? grey : red);
    seen.expect(0.75, 0.25, tiny ? grey : green);
    seen.expect(0.25, 0.75, tiny ? grey : blue);
    seen.expect(0.75, 0.75, grey);
  }
}

TEST_F(Preview, IsBaselineWithoutReorderingAndKeyFramesInTime) {
  start();
  const auto viewer = connectClient();
  const FrameSize size{320, 240};
  const auto packets = stream(*viewer, size, quarters(size, red, green, blue, grey), 130);
  int sinceKey = 0;
  bool configured = false;
  for (const Packet& packet : packets) {
    const bool isFrame = packet.type == Packet::Type::frame;
    if (isFrame) {
      // A configuration packet stands before every key frame and nowhere else.
      EXPECT_EQ(packet.keyframe, configured);
      sinceKey = packet.keyframe ? 1 : sinceKey + 1;
      EXPECT_LE(sinceKey, 60);
    }
    configured = !isFrame;
  }
  const Event seen = probe(writeStream(packets));
  expectKeys(seen, {{"profile", "Constrained Baseline"}, {"has_b_frames", 0}});
  expectKeys(seen, {{"color_range", "tv"}, {"color_space", "bt709"}});
  expectKeys(seen, {{"color_transfer", "iec61966-2-1"}, {"color_primaries", "bt709"}});
}

TEST_F(Preview, FollowsTheCameraToAnotherSize) {
  start();
  const auto viewer = connectClient();
  auto packets = stream(*viewer, {640, 480}, plain({640, 480}, green), 10);
  const auto after = stream(*viewer, {1280, 720}, plain({1280, 720}, blue), 10);
  EXPECT_EQ(configurationOf(after).height, 360);
  decodeLast(writeStream(after), {640, 360}).expect(0.5, 0.5, blue);
  packets.insert(packets.end(), after.begin(), after.end());
  EXPECT_EQ(decodeErrors(writeStream(packets)), "");
}

TEST_F(Preview, IsWatchedAgainByAToolWhenTheHelperIsBack) {
  start();
  std::atomic<int> connections = 0;
  std::atomic<int> frames = 0;
  tools::WatchedStream watched({"127.0.0.1", port, token},
                               {.packet =
                                    [&](const Packet& packet) {
                                      if (packet.type != Packet::Type::frame) return;
                                      ++frames;
                                      watched.acknowledge(packet.frameID);
                                    },
                                .connected = [&] { ++connections; }});
  std::jthread watcher([&](const std::stop_token& stop) { watched.watch(stop, 1000); });
  const auto expectFrames = [&] {
    const int before = frames;
    for (const double patience = uptime() + 20; frames < before + 10;) {
      ASSERT_LT(uptime(), patience);
      feedPaced(1, 60, {320, 240});
    }
  };
  expectFrames();
  start({"--port", std::to_string(port)});
  expectFrames();
  EXPECT_EQ(connections, 2);
  watcher = {};
  EXPECT_EQ(finish(), 0);
  EXPECT_EQ(watched.watch({}, 0), "There is no helper at 127.0.0.1, port " + std::to_string(port) +
                                      " (connect: Connection refused).");
}

}  // namespace
}  // namespace lumora::tests
