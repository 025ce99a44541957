// The preview as an independent decoder sees it.

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <set>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

using client::Packet;
using client::StreamConfiguration;
using testing::HasSubstr;

struct Preview : HelperTest {
  // Decodes the stream with ffmpeg; it must not complain. RGB of the last picture.
  Pixels decodeLast(const std::vector<Packet>& packets, FrameSize size) {
    const std::string path = writeStream(packets);
    const std::string raw = folder / "raw.rgb";
    const auto result = runCommand("ffmpeg -v error -xerror -nostdin -y -i " + path +
                                   " -f rawvideo -pix_fmt rgb24 " + raw);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    std::ifstream file(raw, std::ios::binary);
    Pixels pixels(std::istreambuf_iterator<char>(file), {});
    const auto bytes = static_cast<std::size_t>(size.width * size.height * 3);
    EXPECT_GE(pixels.size(), bytes);
    pixels.erase(pixels.begin(),
                 pixels.end() - static_cast<std::ptrdiff_t>(std::min(bytes, pixels.size())));
    return pixels;
  }

  static void expectColour(const Pixels& pixels, FrameSize size, double x, double y, Rgb expected) {
    const auto column = static_cast<std::size_t>(x * size.width);
    const auto row = static_cast<std::size_t>(y * size.height);
    const std::size_t at = (row * static_cast<std::size_t>(size.width) + column) * 3;
    ASSERT_LT(at + 2, pixels.size());
    EXPECT_NEAR(pixels[at], expected.red, 3) << x << "," << y;
    EXPECT_NEAR(pixels[at + 1], expected.green, 3) << x << "," << y;
    EXPECT_NEAR(pixels[at + 2], expected.blue, 3) << x << "," << y;
  }

  static StreamConfiguration configurationOf(const std::vector<Packet>& packets) {
    return client::parseConfiguration(packets.at(0).payload);
  }
};

constexpr Rgb red{255, 0, 0}, green{0, 255, 0}, blue{0, 0, 255}, grey{90, 120, 150};

TEST_F(Preview, IsUprightAndInTheRightColoursAtEverySize) {
  struct Case {
    FrameSize camera;
    FrameSize preview;
  };
  const Case cases[] = {{{1920, 1080}, {640, 360}},
                        {{1080, 1920}, {202, 360}},
                        {{1280, 720}, {640, 360}},
                        {{640, 480}, {480, 360}}};
  for (const Case& c : cases) {
    start();
    const auto viewer = connectClient();
    const auto packets = stream(*viewer, c.camera, quarters(c.camera, red, green, blue, grey), 20);
    EXPECT_EQ(configurationOf(packets).width, c.preview.width);
    EXPECT_EQ(configurationOf(packets).height, c.preview.height);
    const Pixels pixels = decodeLast(packets, c.preview);
    expectColour(pixels, c.preview, 0.25, 0.25, red);
    expectColour(pixels, c.preview, 0.75, 0.25, green);
    expectColour(pixels, c.preview, 0.25, 0.75, blue);
    expectColour(pixels, c.preview, 0.75, 0.75, grey);
    EXPECT_EQ(finish(), 0);
  }
}

TEST_F(Preview, SmallestFramesAndSmallestPreview) {
  start();
  auto viewer = connectClient();
  auto packets = stream(*viewer, {2, 2}, plain({2, 2}, red), 5);
  expectColour(decodeLast(packets, {2, 2}), {2, 2}, 0, 0, red);
  EXPECT_EQ(finish(), 0);

  lastID = 0;
  start({"--preview-width", "2", "--preview-height", "2"});
  viewer = connectClient();
  packets = stream(*viewer, {1920, 1080}, plain({1920, 1080}, grey), 5);
  EXPECT_EQ(configurationOf(packets).width, 2);
  expectColour(decodeLast(packets, {2, 2}), {2, 2}, 0.6, 0.6, grey);
  EXPECT_EQ(finish(), 0);
}

TEST_F(Preview, IsBaselineWithoutReorderingAndKeyFramesInTime) {
  start();
  const auto viewer = connectClient();
  const FrameSize size{320, 240};
  const auto packets = stream(*viewer, size, quarters(size, red, green, blue, grey), 130);
  int sinceKey = 0;
  bool configured = false;
  for (const Packet& packet : packets) {
    if (packet.type == Packet::Type::configuration) {
      configured = true;
      EXPECT_EQ(configurationOf({packet}).sequenceParameterSet.at(1), 66);
      continue;
    }
    // A configuration packet stands before every key frame and nowhere else.
    EXPECT_EQ(packet.keyframe, configured);
    sinceKey = packet.keyframe ? 1 : sinceKey + 1;
    EXPECT_LE(sinceKey, 60);
    configured = false;
  }
  const auto probe =
      runCommand("ffprobe -v error -show_streams -show_frames -of compact " + writeStream(packets));
  EXPECT_THAT(probe.output, HasSubstr("profile=Constrained Baseline"));
  EXPECT_THAT(probe.output, HasSubstr("has_b_frames=0"));
  EXPECT_THAT(probe.output, HasSubstr("color_range=tv|color_space=smpte170m"));
  EXPECT_THAT(probe.output, Not(HasSubstr("pict_type=B")));
  EXPECT_EQ(finish(), 0);
}

TEST_F(Preview, FollowsTheCameraToAnotherSize) {
  start();
  const auto viewer = connectClient();
  auto packets = stream(*viewer, {640, 480}, plain({640, 480}, green), 10);
  const auto after = stream(*viewer, {1280, 720}, plain({1280, 720}, blue), 10);
  EXPECT_EQ(after.at(0).type, Packet::Type::configuration);
  EXPECT_EQ(configurationOf(after).height, 360);
  const Pixels pixels = decodeLast(after, {640, 360});
  expectColour(pixels, {640, 360}, 0.5, 0.5, blue);
  packets.insert(packets.end(), after.begin(), after.end());
  EXPECT_EQ(runCommand("ffmpeg -v error -xerror -nostdin -i " + writeStream(packets) + " -f null -")
                .output,
            "");
  EXPECT_EQ(finish(), 0);
}

}  // namespace
}  // namespace lumora::tests
