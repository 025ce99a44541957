// The encode pipeline: key frames, replacement of sessions, failures. Sizes of pictures.

#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Encode = ServiceTest;

TEST_F(Encode, ForcesAKeyFrameForEachNewSessionAndClient) {
  const auto first = probe.connectClient();
  probe.frame(1, keySample());
  first->finishSend();
  probe.frame(2, deltaSample());
  first->finishSend();
  probe.connectClient();
  probe.frame(3, keySample());
  EXPECT_EQ(probe.lastSession().submitted, (Submitted{{1, true}, {2, false}, {3, true}}));

  first->finishSend();
  probe.feed(4, 320, 240);  // the camera changes size
  EXPECT_TRUE(probe.encoders->sessions[0]->invalidated);
  EXPECT_EQ(probe.encoders->sessions[0]->flushes, 0);
  EXPECT_EQ(probe.lastSession().submitted, (Submitted{{4, true}}));  // the count goes on
  probe.clock->now += 0.5;
  probe.answer(deltaSample());
  EXPECT_EQ(probe.statistics()["encode_ms"], 500);
  EXPECT_EQ(first->sent.size(), 3u);  // not frame 4: every client waits for the new key frame
}

TEST_F(Encode, EndsTheRunWithTheDescriptionOfAFailure) {
  const auto key = keySample();
  const auto malformed = std::make_shared<MemorySample>(Bytes{0, 0, 0, 9, 1}, nullptr);
  // What is said, the call that fails, and the answer of the session.
  using Sample = std::shared_ptr<const EncodedSample>;
  using Case = std::tuple<const char*, const char*, Status, Sample, std::uint32_t>;
  for (const auto& [message, call, status, sample, flags] :
       {Case{"hardware encoder creation failed (-7)", "createSession", 0, key, 0},
        {"encoder property failed (-7)", "setProperty", 0, key, 0},
        {"encoder preparation failed (-7)", "prepare", 0, key, 0},
        {"no pixel buffer pool", "getPool", 0, key, 0},
        {"RGBA conversion failed", "convert", 0, key, 0},
        {"frame submission failed (-7)", "submit", 0, key, 0},
        {"frame encoding failed (0)", "", 0, nullptr, 0},
        {"frame encoding failed (-5)", "", -5, key, 0},
        {"encoder preparation failed (-13)", "", -13, nullptr, infoNotPrepared},
        {"invalid encoded NAL size", "", 0, malformed, 0}}) {
    probe.restart();
    probe.failures->fail(call, 1, -7);
    const auto client = probe.connectClient();
    probe.feed(1, 1280, 720);  // one of the preview's size is not converted
    for (const auto& opened : probe.encoders->sessions)
      if (!opened->pending.empty()) probe.answer(sample, status, flags);
    EXPECT_EQ(probe.error(), message);
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
    EXPECT_TRUE(client->sent.empty() && !probe.isRawBusy());
    for (const auto& opened : probe.encoders->sessions) EXPECT_TRUE(opened->invalidated);
  }
}

TEST(PictureSize, FitsThePreviewEvenlyAndNeverEnlarges) {
  const PictureSize preview{1280, 720};
  EXPECT_EQ(previewEncodeSize({1918, 1080}, preview, false), (PictureSize{1278, 720}));
  EXPECT_EQ(previewEncodeSize({1918, 1080}, preview, true), preview);
  EXPECT_EQ(previewEncodeSize({1918, 1080}, {1281, 720}, true), (PictureSize{1278, 720}));
  EXPECT_EQ(previewEncodeSize({1278, 718}, preview, true), (PictureSize{1278, 718}));
  EXPECT_EQ(previewEncodeSize({1920, 2}, {640, 360}, false), (PictureSize{640, 2}));
}

TEST(PictureSize, CentresAPictureThatIsFitted) {
  EXPECT_EQ(fitRectangle({1440, 1080}, {1920, 1080}), (PictureRectangle{240, 0, {1440, 1080}}));
  EXPECT_EQ(fitRectangle({1366, 768}, {640, 360}), (PictureRectangle{0, 0, {640, 360}}));
  EXPECT_EQ(fitRectangle({1920, 2}, {640, 360}), (PictureRectangle{0, 179, {640, 1}}));
  EXPECT_EQ(fitRectangle({1080, 1920}, {1080, 720}), (PictureRectangle{337, 0, {405, 720}}));
}

}  // namespace
}  // namespace lumora
