// The encode pipeline: who gets a frame, session settings and replacement, failures, release.

#include "tests/unit/probe.h"

namespace lumora {
namespace {

using Encode = ServiceTest;

TEST_F(Encode, ReleasesAFrameOnceNobodyNeedsItAnyMore) {
  probe.connect();  // has not said hello
  probe.feed(1);
  EXPECT_FALSE(probe.isRawBusy());
  EXPECT_TRUE(probe.encoders->sessions.empty());
  const auto client = probe.connectClient();
  probe.feed(2, 1920, 1080);
  const auto& properties = probe.lastSession().properties;
  EXPECT_EQ(properties.at(SessionProperty::averageBitRate), PropertyValue(std::int64_t{4000000}));
  EXPECT_EQ(properties.at(SessionProperty::expectedFrameRate), PropertyValue(std::int64_t{60}));
  EXPECT_EQ(properties.at(SessionProperty::maxKeyFrameInterval), PropertyValue(std::int64_t{60}));
  EXPECT_TRUE(probe.isRawBusy());
  probe.clock->now += 0.004;
  probe.answer(keySample());
  EXPECT_FALSE(probe.isRawBusy());
  EXPECT_EQ(client->sent.size(), 1u);
  const Json figures = probe.statistics();
  EXPECT_EQ(figures.at("dropped_raw"), 1);
  EXPECT_NEAR(figures.at("encode_ms").get<double>(), 4, 1e-6);
}

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
  EXPECT_EQ(probe.encoders->sessions.size(), 2u);
  EXPECT_TRUE(probe.encoders->sessions[0]->invalidated);
  EXPECT_EQ(probe.encoders->sessions[0]->flushes, 0);
  EXPECT_EQ(probe.lastSession().submitted, (Submitted{{4, true}}));  // the count goes on
  probe.answer(deltaSample());
  EXPECT_EQ(first->sent.size(), 3u);  // not frame 4: every client waits for the new key frame
}

TEST_F(Encode, EndsTheRunWithTheDescriptionOfAFailure) {
  for (const auto& [message, call, nth, status] :
       {std::tuple{"hardware encoder creation failed (-12908)", "createSession", 1, -12908},
        {"encoder property failed (-12)", "setProperty", 1, -12},
        {"encoder property failed (-12)", "setProperty", 7, -12},
        {"encoder preparation failed (-13)", "prepare", 1, -13},
        {"no pixel buffer pool", "getPool", 1, -1},
        {"RGBA conversion failed", "convert", 1, -1},
        {"frame submission failed (-1)", "submit", 1, -1}}) {
    probe.restart();
    probe.failures->fail(call, nth, status);
    probe.connectClient();
    probe.feed(1, 1280, 720);  // one of the preview's size is not converted
    for (const auto& opened : probe.encoders->sessions)
      if (!opened->pending.empty()) probe.answer(keySample());
    EXPECT_EQ(probe.error(), message);
    EXPECT_EQ(probe.process->exitCodes, std::vector<int>{1});
    EXPECT_FALSE(probe.isRawBusy());
    for (const auto& opened : probe.encoders->sessions) EXPECT_TRUE(opened->invalidated);
  }
}

TEST_F(Encode, EndsTheRunForAMissingOrMalformedSample) {
  const std::tuple<Status, std::shared_ptr<const EncodedSample>, const char*> cases[] = {
      {0, nullptr, "frame encoding failed (0)"},
      {-5, keySample(), "frame encoding failed (-5)"},
      {-13, nullptr, "encoder preparation failed (-13)"},
      {0, std::make_shared<MemorySample>(Bytes{0, 0, 0, 9, 1}, nullptr),
       "invalid encoded NAL size"}};
  for (const auto& [status, sample, message] : cases) {
    probe.restart();
    const auto client = probe.connectClient();
    probe.feed(1);
    probe.answer(sample, status, status == -13 ? infoNotPrepared : 0);
    EXPECT_EQ(probe.error(), message);
    EXPECT_TRUE(client->sent.empty());
    EXPECT_FALSE(probe.isRawBusy());
  }
}

TEST_F(Encode, RefusesAFourthBufferOfAPool) {
  probe.connectClient();
  probe.feed(1);
  std::vector<std::shared_ptr<PixelBuffer>> held(2);
  for (auto& buffer : held) EXPECT_EQ(probe.lastSession().pool.create(3, {}, buffer), 0);
  const auto kept = probe.lastSession().pending.front().first;
  probe.answer(keySample());
  probe.feed(2);
  EXPECT_EQ(probe.error(), "pixel buffer allocation failed (-6689)");
}

TEST(RawEncodingCompletion, RunsOnceWhenEveryTokenIsDone) {
  int runs = 0;
  RawEncodingCompletion completion([&] { ++runs; });
  const int first = completion.begin();
  const int second = completion.begin();
  for (const int token : {first, first, 0}) completion.complete(token);
  EXPECT_EQ(runs, 0);
  completion.complete(second);
  EXPECT_EQ(runs, 1);
}

TEST(PictureSize, FitsThePreviewEvenlyAndNeverEnlarges) {
  using Case = std::tuple<PictureSize, PictureSize, bool, PictureSize>;
  for (const auto& [camera, preview, exact, expected] :
       {Case{{1918, 1080}, {1280, 720}, false, {1278, 720}},
        {{1918, 1080}, {1280, 720}, true, {1280, 720}},
        {{1918, 1080}, {1281, 720}, true, {1278, 720}},
        {{1278, 720}, {1280, 720}, true, {1278, 720}},
        {{1920, 2}, {640, 360}, false, {640, 2}}})
    EXPECT_EQ(previewEncodeSize(camera, preview, exact), expected) << camera.width;
}

TEST(PictureSize, CentresAPictureThatIsFitted) {
  using Case = std::tuple<PictureSize, PictureSize, PictureRectangle>;
  for (const auto& [camera, buffer, expected] :
       {Case{{1280, 720}, {1920, 1080}, {0, 0, {1920, 1080}}},
        {{1440, 1080}, {1920, 1080}, {240, 0, {1440, 1080}}},
        {{1366, 768}, {640, 360}, {0, 0, {640, 360}}},
        {{1920, 2}, {640, 360}, {0, 179, {640, 1}}},
        {{1080, 1920}, {1080, 720}, {337, 0, {405, 720}}}})
    EXPECT_EQ(fitRectangle(camera, buffer), expected) << camera.width;
}

}  // namespace
}  // namespace lumora
