// Which encoders sessions get from drivers that refuse, hang, answer late or serve only a few.

#include "codec/system_encoders.h"

#include <thread>

#include "system/asio_dispatch.h"
#include "tests/unit/fakes.h"
#include "tests/unit/stand_in_driver.h"

namespace lumora {
namespace {

using enum Driver::Behaviour;
using Session = std::shared_ptr<CompressionSession>;
using Answer = std::pair<Status, std::uint32_t>;  // and its info flags

Answer encodeOne(CompressionSession& session) {
  std::shared_ptr<PixelBuffer> buffer;
  EXPECT_EQ(session.pixelBufferPool()->create(1, {}, buffer), 0);
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
  explicit EncoderRun(const std::string& choice, Driver::Behaviour behaviour = works,
                      const EncoderSettings& tried = take) {
    driver->behaviour = behaviour;
    encoders = std::make_shared<SystemEncoders>(
        parseAllowedEncoders(choice), PixelFormat{}, queue, std::make_shared<AsioDispatch>(),
        PicturePool::make(),
        [driver = driver](auto&&... arguments) { return driver->open(arguments...); });
    onQueue([&] { encoders->prepare(tried, take); });
  }
  void onQueue(const Work& call) {
    std::packaged_task<void()> task(call);
    queue->async([&] { task(); });
    task.get_future().wait();
  }
  void waitUntilPrepared() {
    std::promise<void> prepared;
    onQueue([&] { encoders->whenPrepared([&] { prepared.set_value(); }); });
    prepared.get_future().wait();
  }
  Status createSession(Session& session, SessionKind kind = SessionKind::preview) {
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
    Session session;
    EXPECT_EQ(createSession(session, kind), 0);
    EXPECT_EQ(encodeOne(*session), (Answer{0, 0}));
    session->invalidate();
    return driver->opened > before;
  }
  void waitForHardware(SessionKind kind = SessionKind::recording) {
    while (driver->opened == 0) std::this_thread::yield();  // the probe opens one
    while (!isHardwareUsed(kind)) std::this_thread::yield();
  }

  std::shared_ptr<Driver> driver = std::make_shared<Driver>();
  std::shared_ptr<AsioQueue> queue = std::make_shared<AsioQueue>("state");
  std::shared_ptr<SystemEncoders> encoders;
};

struct HardwareEncoders : testing::Test {
  void SetUp() override {
    if (!avcodec_find_encoder_by_name("h264_nvenc")) GTEST_SKIP() << "no such encoder";
  }
};

TEST_F(HardwareEncoders, FailASessionOnlyWhereSoftwareIsNotAllowed) {
  constexpr Status none = AVERROR_ENCODER_NOT_FOUND;
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
    EncoderRun run(choice, atFirst);
    run.waitUntilPrepared();
    if (atFirst == works) run.waitForHardware();
    run.driver->behaviour = later;
    Session session;
    const int before = run.driver->opened;
    EXPECT_EQ(run.createSession(session), created);
    if (session) {
      EXPECT_EQ(encodeOne(*session), answer);
    }
    EXPECT_EQ(run.driver->opened - before, later == works ? 1 : 0);
    run.driver->release.set_value();
  }
}

TEST_F(HardwareEncoders, AreUsedOnceTheirDriverAnswersAndNothingWaitsForThat) {
  if (!avcodec_find_encoder_by_name("h264_v4l2m2m")) GTEST_SKIP() << "no second encoder";
  for (const auto behaviour : {hangs, throws, refuses}) {
    SCOPED_TRACE(behaviour);
    EncoderRun run("auto", behaviour);
    run.waitUntilPrepared();
    Session early;
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

TEST_F(HardwareEncoders, AreNotUsedForATakeWhoseEncoderWasOpenedBeforeTheyWereFound) {
  EncoderRun run("auto", hangs);
  run.onQueue([&] { run.encoders->openAhead(slowTake); });
  run.driver->release.set_value();
  run.waitForHardware(SessionKind::preview);
  EXPECT_FALSE(run.isHardwareUsed());
  EXPECT_TRUE(run.isHardwareUsed());
}

TEST_F(HardwareEncoders, AreWaitedForWhereSoftwareIsNotAllowed) {
  EncoderRun run("hardware", hangs);
  const std::jthread answer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    run.driver->release.set_value();
  });
  Session session;
  EXPECT_EQ(run.createSession(session), 0);
}

TEST_F(HardwareEncoders, AreWaitedForWhileAStoppedSessionHoldsOne) {
  for (int i = 0; i < 10; ++i) {
    EncoderRun run("hardware");
    run.waitUntilPrepared();
    run.driver->limit = 2;  // the one that was opened to find it, and one more
    run.driver->behaviour = hangs;
    Session stopped;
    Session next;
    ASSERT_EQ(run.createSession(stopped), 0);
    stopped->invalidate();
    ASSERT_EQ(run.createSession(next), 0);
    run.driver->release.set_value();  // they come in any order
    EXPECT_EQ(encodeOne(*next), (Answer{0, 0}));
  }
}

TEST_F(HardwareEncoders, AreOpenedForTheNextTakeOnceTheyAreFound) {
  EncoderRun run("auto", works, preview);
  while (run.driver->opened < 2) std::this_thread::yield();
}

TEST(SystemEncoders, PrepareAPreviewThenTheLikeliestTakeUnlessAnotherComesFirst) {
  for (const bool comesFirst : {false, true}) {
    double now = 0;
    int opened = 0;
    int trimmed = 0;
    const auto dispatch = std::make_shared<FakeDispatch>(now);
    const auto queue = std::make_shared<ManualQueue>(now);
    const auto encoders = std::make_shared<SystemEncoders>(
        parseAllowedEncoders("software"), PixelFormat{}, queue, dispatch, PicturePool::make(),
        [&](auto&&... arguments) {
          ++opened;
          return Driver().open(arguments...);
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
