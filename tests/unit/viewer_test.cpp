// The viewer's rules: which frames a page gets, and who may ask for what. Also the lists of cameras
// and sound devices, and the times that lumora-tap gives to pictures.

#include <gtest/gtest.h>

#include "tools/cameras.h"
#include "tools/flv.h"
#include "tools/viewer/frame_flow.h"
#include "tools/viewer/web_rules.h"

namespace lumora::viewer {
namespace {

TEST(FrameFlow, AcknowledgesWhatThePageHasShownUntilANewStreamBegins) {
  FrameFlow flow;
  EXPECT_FALSE(flow.frameCame(1, true, 0));  // there is no page
  flow.pageJoined();
  EXPECT_FALSE(flow.frameCame(2, false, 0));  // a page starts with a key frame
  EXPECT_TRUE(flow.frameCame(3, true, 0) && flow.frameCame(4, false, 0.1));
  EXPECT_TRUE(flow.frameCame(5, false, 0.2));
  EXPECT_EQ(flow.shown(4), 4u);  // this acknowledges frame 3, too
  EXPECT_FALSE(flow.acknowledgeOverdue(0.45));
  flow.streamBegan();
  EXPECT_FALSE(flow.acknowledgeOverdue(9) || flow.shown(5));  // the new stream has no frame 5
  EXPECT_TRUE(!flow.frameCame(6, false, 9) && flow.frameCame(7, true, 9));
}

TEST(FrameFlow, ASlowPageGetsNothingUntilItSpeaksAndAKeyFrameComes) {
  FrameFlow flow;
  flow.pageJoined();
  EXPECT_TRUE(flow.frameCame(1, true, 0) && flow.frameCame(2, false, 0.1));
  EXPECT_FALSE(flow.acknowledgeOverdue(FrameFlow::patience));
  EXPECT_EQ(flow.acknowledgeOverdue(FrameFlow::patience + 0.001), 2u);
  EXPECT_FALSE(flow.frameCame(3, true, 0.3));
  flow.pageSpoke();
  EXPECT_TRUE(!flow.frameCame(4, false, 0.4) && flow.frameCame(5, true, 0.5));
  EXPECT_EQ(flow.takeWithheld(), 2u);
  flow.pageRestarted();
  EXPECT_FALSE(flow.frameCame(6, false, 0.5));
  EXPECT_FALSE(flow.acknowledgeOverdue(9));  // the caller acknowledges a withheld 6, and so 5
  EXPECT_TRUE(flow.frameCame(7, true, 0.6));
  EXPECT_EQ(flow.takeWithheld(), 0u);  // a decoder that restarts does not count as a slow page
}

TEST(FrameFlow, APageThatIsHiddenOrHasLeftHoldsNothingUp) {
  FrameFlow flow;
  flow.pageJoined();
  EXPECT_TRUE(flow.frameCame(1, true, 0));
  flow.setVisible(false);
  EXPECT_EQ(flow.acknowledgeOverdue(0.001), 1u);
  EXPECT_FALSE(flow.frameCame(2, true, 0.1));
  flow.pageSpoke();
  flow.setVisible(true);
  EXPECT_TRUE(flow.frameCame(3, true, 0.2));
  flow.shown(3);
  flow.setVisible(false);
  EXPECT_FALSE(flow.frameCame(4, false, 0.2));
  flow.setVisible(true);
  EXPECT_TRUE(!flow.frameCame(5, false, 0.2) && flow.frameCame(6, true, 0.2));  // 5 needs frame 4
  flow.pageLeft();
  EXPECT_EQ(flow.acknowledgeOverdue(0.2), 6u);
  flow.pageJoined();
  EXPECT_TRUE(!flow.frameCame(7, false, 0.3) && flow.frameCame(8, true, 0.3));
  EXPECT_EQ(flow.takeWithheld(), 0u);  // a page that has just joined has missed nothing
}

TEST(WebRules, OnlyOurOwnPageAtItsNumericAddressGetsAnything) {
  const WebRules rules(4711, "secret");
  const char* const host = "127.0.0.1:4711";
  EXPECT_EQ(rules.resource(host, "http://127.0.0.1:4711", "/secret/a.js?x=/"), "a.js");
  EXPECT_EQ(WebRules(80, "s").resource("127.0.0.1", "http://127.0.0.1", "/s/"), "");
  for (const char* other :
       {"evil.example:4711", "localhost:4711", "[::1]:4711", "127.0.0.1", "127.0.0.1:4712", ""})
    EXPECT_FALSE(rules.resource(other, {}, "/secret/")) << other;
  for (const char* other : {"http://evil.example", "http://localhost:4711", "http://127.0.0.1:4712",
                            "https://127.0.0.1:4711", "null", ""})
    EXPECT_FALSE(rules.resource(host, other, "/secret/")) << other;
  for (const char* other :
       {"/secret/socket", "/secreT/", "/secre/", "/secret", "/secret?/", "secret/", "/", ""})
    EXPECT_FALSE(rules.resource(host, {}, other)) << other;
}

TEST(ByteRange, IsTheRequestedPartOrElseTheWholeFile) {
  using enum ByteRange::Kind;
  EXPECT_EQ(parseRange("bytes=10-", 100), (ByteRange{part, 10, 90}));
  EXPECT_EQ(parseRange("bytes=99-99", 100), (ByteRange{part, 99, 1}));
  EXPECT_EQ(parseRange("bytes=90-200", 100), (ByteRange{part, 90, 10}));
  EXPECT_EQ(parseRange("bytes=100-", 100), ByteRange{unsatisfiable});
  EXPECT_EQ(parseRange("bytes=0-", 0), ByteRange{unsatisfiable});
  for (const char* header : {"", "bytes=9-8", "bytes=0-1,5-6", "bytes=x-", "lines=0-1", "bytes=-5"})
    EXPECT_EQ(parseRange(header, 100), (ByteRange{whole, 0, 100})) << header;
}

TEST(DeviceLists, HoldOnlyWhatFfmpegCanRead) {
  std::vector<std::pair<std::string, std::string>> found;
  for (const auto& [name, sizes] : tools::parseCameraFormats(
           "[v4l2 @ 0x5] Raw       :     yuyv422 :           YUYV 4:2:2 : 640x480 160x90\n"
           "[v4l2 @ 0x5] Compressed:       mjpeg :          Motion-JPEG : 1280x720\n"
           "[v4l2 @ 0x5] Compressed: Unsupported :                 HEVC : 1280x720\n"
           "[v4l2 @ 0x5] Raw       :        nv12 :           Y/UV 4:2:0 : Emulated : {2-8, 2}x2\n"
           "[v4l2 @ 0x5] Raw       :       bgr24 :          BGR3 8-8-8 :\n"
           "/dev/video0: Immediate exit requested\n"))
    found.emplace_back(name, sizes);
  EXPECT_EQ(found, (decltype(found){{"yuyv422", "640x480 160x90"},
                                    {"mjpeg", "1280x720"},
                                    {"nv12", "{2-8, 2}x2"},
                                    {"bgr24", ""}}));
  EXPECT_TRUE(tools::parseCameraFormats("/dev/video1: Permission denied\n").empty());
  EXPECT_EQ(tools::parseSoundDevices("pulse",
                                     "Auto-detected sources for pulse:\n"
                                     "  null [Generate zero samples (capture)] (none)\n"
                                     "* usb-Blue.mono [Yeti [USB]]\n"
                                     "  pci.analog-stereo [Built-in] (audio)\n"
                                     "Cannot list sources: Connection refused\n"),
            (std::vector<std::string>{"pulse:usb-Blue.mono  Yeti [USB]",
                                      "pulse:pci.analog-stereo  Built-in"}));
}

TEST(FlvTimes, AlwaysGrowAndFollowIdsThatAreCaptureTimes) {
  const struct {
    std::optional<bool> fromIDs;
    // Id and arrival in seconds. The expected time in milliseconds.
    std::vector<std::tuple<double, double, std::uint32_t>> pictures;
  } cases[] = {{{}, {{100, 100.01, 0}, {100.016, 100.03, 16}, {100.0161, 100.03, 17}}},
               {{}, {{1e-6, 30, 0}, {2e-6, 30.5, 500}}},
               {{}, {{100, 100.01, 0}, {1e-6, 101, 1000}, {2e-6, 101, 1001}, {101.9, 102, 1900}}},
               {true, {{5, 30, 0}, {5.5, 30.5, 500}, {1, 31, 1000}, {1.2, 31.1, 1200}}},
               {false, {{100, 100.01, 0}, {100.016, 100.05, 40}}}};
  for (const auto& [fromIDs, pictures] : cases) {
    tools::FlvTimes times(fromIDs);
    for (const auto& [id, arrivedAt, time] : pictures)
      EXPECT_EQ(times.next(static_cast<std::uint64_t>(id * 1e6),
                           client::Uptime::time_point(client::Seconds(arrivedAt))),
                time)
          << id << ", " << arrivedAt;
  }
}

}  // namespace
}  // namespace lumora::viewer
