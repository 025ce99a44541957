// Which encoders sessions get, with drivers that refuse, hang, answer late and serve only a few.

#include "codec/system_encoders.h"
#include "encode/session_settings.h"
#include "system/asio_dispatch.h"
#include "tests/unit/fakes.h"
#include "tests/unit/stand_in_driver.h"

namespace lumora {
namespace {

const EncoderSettings preview = sessionSettings(SessionKind::preview, {2, 2}, 60);
const EncoderSettings take = sessionSettings(SessionKind::recording, {2, 2}, 60);
const EncoderSettings slowTake = sessionSettings(SessionKind::recording, {2, 2}, 15);

using Answer = std::pair<Status, std::uint32_t>;  // and its info flags

Answer encodeOne(CompressionSession& session) {
  std::shared_ptr<PixelBuffer> buffer;
  EXPECT_EQ(session.pixelBufferPool()->create(1, buffer), 0);
  std::promise<Answer> answer;
  session.encodeFrame(buffer, {1, 60}, {.forceKeyFrame = true},
                      [&](Status status, std::uint32_t flags, const auto& sample) {
                        EXPECT_EQ(status == 0, sample != nullptr);
                        answer.set_value({status, flags});
                      });
  return answer.get_future().get();
}

// On real queues.
struct EncoderRun {
  explicit EncoderRun(const std::string& choice) {
    encoders = std::make_shared<SystemEncoders>(
        parseAllowedEncoders(choice), queue, std::make_shared<AsioDispatch>(), PicturePool::make(),
        [driver = driver](auto&&... all) { return driver->open(all...); });
  }
  void onQueue(const Work& call) {
    std::promise<void> done;
    queue->async([&] {
      call();
      done.set_value();
    });
    done.get_future().wait();
  }
  void prepare(const EncoderSettings& first, const EncoderSettings& second) {
    onQueue([&] { encoders->prepare(first, second); });
  }
  void waitUntilPrepared() {
    std::promise<void> prepared;
    onQueue([&] { encoders->whenPrepared([&] { prepared.set_value(); }); });
    prepared.get_future().wait();
  }
  Status createSession(std::shared_ptr<CompressionSession>& session,
                       SessionKind kind = SessionKind::preview) {
    Status status = 0;
    onQueue([&] { status = encoders->createSession(kind, 2, 2, {}, session); });
    if (!session) return status;
    session->setProperty(SessionProperty::expectedFrameRate, preview.frameRate);
    session->setProperty(SessionProperty::maxKeyFrameInterval, preview.keyFrameInterval);
    session->setProperty(SessionProperty::averageBitRate, preview.bitRate);
    EXPECT_EQ(session->prepareToEncodeFrames(), 0);
    return status;
  }
  // Whether the driver opens an encoder for a session; it serves the next one, too.
  bool isHardwareUsed(SessionKind kind = SessionKind::recording) {
    const int before = driver->opened;
    std::shared_ptr<CompressionSession> session;
    EXPECT_EQ(createSession(session, kind), 0);
    EXPECT_EQ(encodeOne(*session), (Answer{0, 0}));
    session->invalidate();
    return driver->opened > before;
  }
  void waitForHardware() {
    while (driver->opened == 0) std::this_thread::yield();  // to find it
    while (!isHardwareUsed()) std::this_thread::yield();
  }

  std::shared_ptr<Driver> driver = std::make_shared<Driver>();
  std::shared_ptr<AsioQueue> queue = std::make_shared<AsioQueue>("state");
  std::shared_ptr<SystemEncoders> encoders;
};

TEST(SystemEncoders, ADriverThatRefusesOrHangsCostsASessionOnlyWhereSoftwareIsNoChoice) {
  using enum Driver::Behaviour;
  constexpr Status none = AVERROR_ENCODER_NOT_FOUND;
  if (isMissing("h264_nvenc")) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  for (const auto& [choice, atFirst, later, created, answer] :
       {std::tuple{"auto", works, works, 0, Answer{0, 0}},
        {"auto", works, refuses, 0, Answer{0, 0}},
        {"auto", works, hangs, 0, Answer{0, 0}},
        {"hardware", works, works, 0, Answer{0, 0}},
        {"hardware", works, refuses, 0, Answer{AVERROR(EBUSY), infoNotPrepared}},
        {"h264_nvenc", works, hangs, 0, Answer{AVERROR(ETIMEDOUT), infoNotPrepared}},
        {"hardware", refuses, refuses, none, Answer{0, 0}},
        {"h264_nvenc", hangs, hangs, none, Answer{0, 0}}}) {
    SCOPED_TRACE(std::string(choice) + std::to_string(atFirst) + std::to_string(later));
    EncoderRun run(choice);
    run.driver->behaviour = atFirst;
    run.prepare(take, take);
    run.waitUntilPrepared();
    if (atFirst == works) run.waitForHardware();
    run.driver->behaviour = later;
    std::shared_ptr<CompressionSession> session;
    const int before = run.driver->opened;
    EXPECT_EQ(run.createSession(session), created);
    if (session) {
      EXPECT_EQ(encodeOne(*session), answer);
    }
    EXPECT_EQ(run.driver->opened - before, later == works ? 1 : 0);
    run.driver->release.set_value();
  }
}

TEST(SystemEncoders, NothingWaitsForADriverAndALateAnswerCountsFromThenOn) {
  if (isMissing("h264_nvenc") || isMissing("h264_v4l2m2m")) GTEST_SKIP() << "no second encoder";
  using enum Driver::Behaviour;
  for (const auto behaviour : {hangs, throws, refuses}) {
    SCOPED_TRACE(behaviour);
    EncoderRun run("auto");
    run.driver->behaviour = behaviour;
    run.prepare(take, take);
    run.waitUntilPrepared();
    std::shared_ptr<CompressionSession> early;
    EXPECT_EQ(run.createSession(early), 0);
    EXPECT_EQ(encodeOne(*early), (Answer{0, 0}));
    while (!run.driver->othersAsked) std::this_thread::yield();  // a hang takes a second
    EXPECT_FALSE(run.isHardwareUsed());
    run.driver->release.set_value();
    if (behaviour == hangs) run.waitForHardware();
    const int before = run.driver->opened;
    EXPECT_EQ(encodeOne(*early), (Answer{0, 0}));
    EXPECT_EQ(run.driver->opened, before);
  }
}

TEST(SystemEncoders, ATakeBeginsWithWhatWasOpenedForItThoughHardwareIsFoundMeanwhile) {
  if (isMissing("h264_nvenc")) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  EncoderRun run("auto");
  run.driver->behaviour = Driver::hangs;
  run.prepare(take, take);
  run.onQueue([&] { run.encoders->openAhead(slowTake); });
  run.driver->release.set_value();
  while (!run.isHardwareUsed(SessionKind::preview)) std::this_thread::yield();
  EXPECT_FALSE(run.isHardwareUsed());
  EXPECT_TRUE(run.isHardwareUsed());
}

TEST(SystemEncoders, TheNextSessionGetsTheEncoderThatTheLastOneGivesBack) {
  if (isMissing("h264_nvenc")) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  EncoderRun run("hardware");
  run.driver->limit = 1;
  run.prepare(preview, take);
  for (int i = 0; i < 20; ++i) {
    std::shared_ptr<CompressionSession> session;
    ASSERT_EQ(run.createSession(session), 0);
    ASSERT_EQ(encodeOne(*session), (Answer{0, 0}));
    session->invalidate();
  }
}

TEST(SystemEncoders, ASessionWaitsForAnEncoderThatIsOpenedForAStoppedOne) {
  if (isMissing("h264_nvenc")) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  for (int i = 0; i < 10; ++i) {
    EncoderRun run("hardware");
    run.prepare(take, take);
    run.waitUntilPrepared();
    run.driver->limit = 2;  // the one that was opened to find it, and one more
    run.driver->behaviour = Driver::hangs;
    std::shared_ptr<CompressionSession> stopped;
    std::shared_ptr<CompressionSession> next;
    ASSERT_EQ(run.createSession(stopped), 0);
    stopped->invalidate();
    ASSERT_EQ(run.createSession(next), 0);
    run.driver->release.set_value();  // they come in any order
    EXPECT_EQ(encodeOne(*next), (Answer{0, 0}));
  }
}

TEST(SystemEncoders, HardwareThatIsFoundIsOpenedForTheNextTakeToo) {
  if (isMissing("h264_nvenc")) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  EncoderRun run("auto");
  run.prepare(preview, take);
  while (run.driver->opened < 2) std::this_thread::yield();
}

TEST(SystemEncoders, PreparesAPreviewThenTheLikeliestTakeUnlessAnotherComesFirst) {
  for (const bool comesFirst : {false, true}) {
    double now = 0;
    int opened = 0;
    int trimmed = 0;
    const auto dispatch = std::make_shared<FakeDispatch>(now);
    const auto queue = std::make_shared<ManualQueue>(now);
    const auto encoders = std::make_shared<SystemEncoders>(
        parseAllowedEncoders("software"), queue, dispatch, PicturePool::make(),
        [&](auto&&... all) {
          ++opened;
          return Driver().open(all...);
        },
        [&] { ++trimmed; });
    ManualQueue& opener = *dispatch->queues.at(0);
    encoders->prepare(preview, take);
    opener.run();
    EXPECT_EQ(opened, 1);
    encoders->warmUp(take, take);
    if (comesFirst) encoders->openAhead(slowTake);
    std::exchange(dispatch->detached, {}).at(0)();
    queue->run();
    opener.run();
    EXPECT_EQ(opened, 2);
    encoders->openAhead(slowTake);
    opener.run();
    EXPECT_EQ(opened, comesFirst ? 2 : 3);
    now = 60;
    opener.run();
    EXPECT_EQ(trimmed, 1);
  }
}

}  // namespace
}  // namespace lumora
