// Which encoder a session gets if a driver refuses, hangs, answers late or opens few encoders.

#include "codec/system_encoders.h"

#include <thread>

#include "system/asio_dispatch.h"
#include "tests/unit/fakes.h"
#include "tests/unit/wait_until.h"

namespace lumora {
namespace {

constexpr EncoderSettings preview{SessionKind::preview, 2, 2, {}, 60, 60, 4000000};
constexpr EncoderSettings take{SessionKind::recording, 2, 2, {}, 60, 60, 1000000};
constexpr EncoderSettings slowTake{SessionKind::recording, 2, 2, {}, 15, 15, 1000000};

enum Behaviour { works, refuses, hangs, throws };

// A fake driver of "h264_nvenc" that encodes in software. All other hardware is missing.
struct Driver : std::enable_shared_from_this<Driver> {
  EncoderFactory factory() {
    return [self = shared_from_this()](auto&&... arguments) { return self->open(arguments...); };
  }
  Status open(const AVCodec& codec, const EncoderSettings& settings,
              std::unique_ptr<LibavEncoder>& encoder) {
    ++asked;
    const auto pictures = PicturePool::make();
    if (isHardware(codec)) {
      if (std::string_view(codec.name) != "h264_nvenc") {
        othersAsked = true;
        return AVERROR(ENODEV);
      }
      const Behaviour now = behaviour;
      if (now == hangs) released.wait();
      if (now == throws) throw std::runtime_error("the driver failed");
      if (now == refuses) return AVERROR(EBUSY);
      const std::lock_guard hold(mutex);
      std::erase_if(inUse, [](const auto& pool) { return pool.expired(); });
      if (inUse.size() == limit) return AVERROR(EBUSY);
      inUse.push_back(pictures);
      ++opened;
    }
    return LibavEncoder::open(*avcodec_find_encoder_by_name(x264Encoder), "", {}, pictures,
                              settings, encoder);
  }

  std::atomic<Behaviour> behaviour = works;
  std::atomic<int> asked = 0, opened = 0;  // calls of `open`; hardware encoders opened
  std::atomic<bool> othersAsked = false;
  std::atomic<std::size_t> limit = 99;  // the most hardware encoders that may be open
  std::promise<void> release;
  std::shared_future<void> released = release.get_future();
  std::mutex mutex;
  std::vector<std::weak_ptr<PicturePool>> inUse;  // one per encoder; expires when it closes
};

struct EncoderPoolTest : testing::Test {
  static EncoderRequest request(const EncoderSettings& settings, const char* codec = x264Encoder) {
    return {avcodec_find_encoder_by_name(codec), avcodec_find_encoder_by_name(x264Encoder),
            settings};
  }
  void openAhead(const EncoderRequest& by) { pool->openAhead(*by.codec, by.settings, 0); }
  // Takes an encoder. Returns false if it had to be opened now.
  bool isAhead(const EncoderSettings& settings, const char* codec = x264Encoder) {
    const int before = driver->asked;
    EXPECT_NE(pool->acquire(request(settings, codec), {}).encoder, nullptr);
    return driver->asked == before;
  }
  void release(const EncoderRequest& by, OpenedEncoder result) {
    pool->beginRelease(by);
    pool->release(by, std::move(result));
  }

  double now = 0;
  int trimmed = 0;
  const std::shared_ptr<Driver> driver = std::make_shared<Driver>();
  const std::shared_ptr<ManualQueue> opener = std::make_shared<ManualQueue>(now);
  const std::shared_ptr<EncoderPool> pool =
      std::make_shared<EncoderPool>(driver->factory(), opener, [this] { ++trimmed; });
};

TEST_F(EncoderPoolTest, OpensOneEncoderAheadForEachKindOfSessionWithItsLatestSettings) {
  for (const auto& settings : {preview, take, slowTake, slowTake}) openAhead(request(settings));
  opener->run();
  EXPECT_EQ(driver->asked, 2);
  EXPECT_TRUE(isAhead(preview));
  EXPECT_FALSE(isAhead(preview));  // the line before took it
  EXPECT_FALSE(isAhead(take));
  EXPECT_TRUE(isAhead(slowTake));
  openAhead(request(take));
  EXPECT_FALSE(isAhead(take));  // none is open yet, so the session opens its own
  opener->run();
  EXPECT_EQ(driver->asked, 5);
}

TEST_F(EncoderPoolTest, KeepsAReleasedEncoderForTheNextSessionUnlessAnotherWasOpenedAhead) {
  for (const bool isOpened : {false, true}) {
    OpenedEncoder first = pool->acquire(request(take), {});
    if (isOpened) openAhead(request(slowTake));
    opener->run();
    release(request(take), std::move(first));
    EXPECT_EQ(isAhead(take), !isOpened);
    EXPECT_EQ(isAhead(slowTake), isOpened);
  }
}

TEST_F(EncoderPoolTest, GivesUnusedMemoryBackAMinuteAfterTheLastTake) {
  const auto trimmedAt = [this](double time) {
    now = time;
    opener->run();
    return trimmed;
  };
  openAhead(request(preview));
  EXPECT_EQ(trimmedAt(30), 0);
  openAhead(request(take));
  EXPECT_EQ(trimmedAt(89), 0);
  OpenedEncoder running = pool->acquire(request(take), {});
  EXPECT_EQ(trimmedAt(200), 0);  // the take is still running
  release(request(take), std::move(running));
  EXPECT_EQ(trimmedAt(259), 0);
  EXPECT_EQ(trimmedAt(260), 1);
  EXPECT_FALSE(isAhead(preview) || isAhead(take));
}

TEST_F(EncoderPoolTest, OpensTheLikeliestTakeAheadUnlessAnotherTakeHasStarted) {
  for (const bool hasStarted : {false, true}) {
    const auto dispatch = std::make_shared<FakeDispatch>(now);
    const auto encoders =
        std::make_shared<SystemEncoders>(parseAllowedEncoders("software"), PixelFormat{}, opener,
                                         dispatch, PicturePool::make(), driver->factory());
    encoders->warmUp(take, take);
    if (hasStarted) encoders->openAhead(slowTake), dispatch->queues.at(0)->run();
    // Empties `detached`. Its work owns `encoders`, which owns `dispatch`: a cycle that would leak.
    std::exchange(dispatch->detached, {}).at(0)();
    opener->run();
    dispatch->queues.at(0)->run();
    EXPECT_EQ(driver->asked, hasStarted ? 2 : 1);
  }
}

struct HardwareEncoders : EncoderPoolTest {
  void SetUp() override {
    if (!wanted.codec) GTEST_SKIP() << "no such encoder";
  }
  // Calls `acquire` on another thread, and expects it to wait.
  auto acquireLater(const std::stop_token& stop = {}) {
    auto acquired =
        std::async(std::launch::async, [=, this] { return pool->acquire(wanted, stop); });
    EXPECT_EQ(acquired.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    return acquired;
  }
  const EncoderRequest wanted = request(preview, "h264_nvenc");
};

TEST_F(HardwareEncoders, AreWaitedForWhileOneIsBeingOpenedAhead) {
  driver->behaviour = hangs;
  openAhead(wanted);
  const std::jthread opening([&] { opener->run(); });
  waitUntil([&] { return driver->asked > 0; });
  auto acquired = acquireLater();
  driver->release.set_value();
  EXPECT_NE(acquired.get().encoder, nullptr);
  EXPECT_EQ(driver->asked, 1);
}

TEST_F(HardwareEncoders, AreOpenedAheadAgainIfTheDriverRefused) {
  for (const auto behaviour : {refuses, works}) {
    driver->behaviour = behaviour;
    openAhead(request(take, "h264_nvenc"));
    opener->run();
  }
  EXPECT_TRUE(isAhead(take, "h264_nvenc"));
}

TEST_F(HardwareEncoders, AreClosedToMakeRoomIfOpenedAheadAndTheirSubstitutesAreNotKept) {
  driver->limit = 1;
  openAhead(request(take, "h264_nvenc"));
  opener->run();
  const OpenedEncoder first = pool->acquire(wanted, {});
  EXPECT_FALSE(first.isSubstitute);
  EXPECT_EQ(driver->opened, 2);
  OpenedEncoder instead = pool->acquire(wanted, {});
  EXPECT_TRUE(instead.encoder && instead.isSubstitute);
  release(wanted, std::move(instead));
  EXPECT_FALSE(isAhead(preview, "h264_nvenc"));  // the substitute was not kept
}

TEST_F(HardwareEncoders, AreWaitedForUpToASecondWhileOneIsReleasedUnlessTheSessionIsStopped) {
  driver->limit = 1;
  OpenedEncoder first = pool->acquire(wanted, {});
  pool->beginRelease(wanted);
  std::stop_source stop;
  auto stopped = acquireLater(stop.get_token());
  stop.request_stop();
  EXPECT_EQ(stopped.get().status, AVERROR_EXIT);
  EXPECT_EQ(pool->acquire(wanted, stop.get_token()).status, AVERROR_EXIT);
  EXPECT_TRUE(pool->acquire(wanted, {}).isSubstitute);
  auto waiting = acquireLater();
  first.encoder.reset();
  pool->release(wanted, {});
  EXPECT_FALSE(waiting.get().isSubstitute);
}

using Session = std::shared_ptr<CompressionSession>;
using Answer = std::pair<Status, std::uint32_t>;  // to a picture: status, info flags

// System encoders on real queues. Only the test's thread creates sessions.
struct EncoderRun {
  explicit EncoderRun(const std::string& choice, Behaviour behaviour = works,
                      const EncoderSettings& tried = take)
      : encoders(std::make_shared<SystemEncoders>(
            parseAllowedEncoders(choice), PixelFormat{}, std::make_shared<AsioQueue>("state"),
            std::make_shared<AsioDispatch>(), PicturePool::make(), driver->factory())) {
    driver->behaviour = behaviour;
    encoders->prepare(tried, take);
  }
  void waitUntilPrepared() const {
    std::promise<void> prepared;
    encoders->whenPrepared([&] { prepared.set_value(); });
    prepared.get_future().wait();
  }
  Session createSession(const EncoderSettings& by = preview) {
    Session session;
    created = encoders->createSession(by.kind, by.width, by.height, {}, session);
    if (!session) return session;
    session->setProperty(SessionProperty::expectedFrameRate, by.frameRate);
    session->setProperty(SessionProperty::maxKeyFrameInterval, by.keyFrameInterval);
    session->setProperty(SessionProperty::averageBitRate, by.bitRate);
    EXPECT_EQ(session->prepareToEncodeFrames(), 0);
    return session;
  }
  // The session's answer to a picture. If there is no session: the status of `createSession`.
  Answer encodeOne(const Session& session) const {
    if (!session) return {created, 0};
    std::shared_ptr<PixelBuffer> buffer;
    EXPECT_EQ(session->pixelBufferPool()->create(1, {}, buffer), 0);
    std::promise<Answer> answer;
    session->encodeFrame(buffer, {1, 60}, {.forceKeyFrame = true},
                         [&](Status status, std::uint32_t flags, const auto& sample) {
                           EXPECT_EQ(status == 0, sample != nullptr);
                           answer.set_value({status, flags});
                         });
    return answer.get_future().get();
  }
  // Whether the driver opens an encoder for a session.
  bool isHardwareUsed(const EncoderSettings& by = slowTake) {
    const int before = driver->opened;
    const Session session = createSession(by);
    EXPECT_EQ(encodeOne(session), (Answer{0, 0}));
    session->invalidate();
    return driver->opened > before;
  }
  void waitForHardware(const EncoderSettings& by = slowTake) {
    waitUntil([&] { return driver->opened > 0; });  // the probe opens one
    waitUntil([&] { return isHardwareUsed(by); });
  }

  const std::shared_ptr<Driver> driver = std::make_shared<Driver>();
  const std::shared_ptr<SystemEncoders> encoders;
  Status created = 0;
};

TEST_F(HardwareEncoders, FailASessionOnlyWhereSoftwareIsNotAllowed) {
  for (const auto& [choice, atFirst, later, answer] :
       {std::tuple{"auto", works, refuses, Answer{0, 0}},
        {"auto", works, hangs, Answer{0, 0}},
        {"hardware", works, refuses, Answer{AVERROR(EBUSY), infoNotPrepared}},
        {"h264_nvenc", works, hangs, Answer{AVERROR(ETIMEDOUT), infoNotPrepared}},
        {"hardware", refuses, refuses, Answer{AVERROR_ENCODER_NOT_FOUND, 0}},
        {"hardware", works, throws, Answer{AVERROR_EXTERNAL, infoNotPrepared}},
        {"h264_nvenc", hangs, hangs, Answer{AVERROR_ENCODER_NOT_FOUND, 0}}}) {
    SCOPED_TRACE(std::string(choice) + std::to_string(atFirst) + std::to_string(later));
    EncoderRun run(choice, atFirst);
    run.waitUntilPrepared();
    if (atFirst == works) run.waitForHardware();
    run.driver->behaviour = later;
    const int before = run.driver->opened;
    EXPECT_EQ(run.encodeOne(run.createSession()), answer);
    EXPECT_EQ(run.driver->opened, before);
    run.driver->release.set_value();
  }
}

TEST_F(HardwareEncoders, DoNotMakeSessionsWaitAndAreUsedOnceTheirDriverAnswers) {
  if (!avcodec_find_encoder_by_name("h264_v4l2m2m")) GTEST_SKIP() << "no second encoder";
  for (const auto behaviour : {hangs, refuses}) {
    SCOPED_TRACE(behaviour);
    EncoderRun run("auto", behaviour);
    run.waitUntilPrepared();
    const Session early = run.createSession();
    EXPECT_EQ(run.encodeOne(early), (Answer{0, 0}));
    waitUntil([&] { return run.driver->othersAsked.load(); });  // a hang delays this by a second
    EXPECT_FALSE(run.isHardwareUsed());
    run.driver->release.set_value();
    if (behaviour == hangs) run.waitForHardware();
    const int before = run.driver->opened;
    EXPECT_EQ(run.encodeOne(early), (Answer{0, 0}));  // the session stays in software
    EXPECT_EQ(run.driver->opened, before);
  }
}

TEST_F(HardwareEncoders, AreNotUsedForATakeWhoseEncoderWasOpenedBeforeTheyWereFound) {
  EncoderRun run("auto", hangs);
  run.encoders->openAhead(slowTake);
  run.driver->release.set_value();
  run.waitForHardware(preview);
  EXPECT_FALSE(run.isHardwareUsed());
  EXPECT_TRUE(run.isHardwareUsed());
}

TEST_F(HardwareEncoders, AreWaitedForUntilOneIsFoundAndWhileAStoppedSessionHoldsOne) {
  for (int i = 0; i < 10; ++i) {
    EncoderRun run("hardware");
    const Session other = run.createSession(take);  // takes the encoder that the probe opened
    EXPECT_EQ(run.encodeOne(other), (Answer{0, 0}));
    run.driver->limit = 2;
    run.driver->behaviour = hangs;
    run.createSession()->invalidate();
    const Session next = run.createSession();
    run.driver->release.set_value();  // the stopped session may open its encoder before `next` does
    EXPECT_EQ(run.encodeOne(next), (Answer{0, 0}));
  }
}

TEST_F(HardwareEncoders, AreOpenedForTheNextTakeOnceTheyAreFound) {
  const EncoderRun run("auto", works, preview);
  waitUntil([&] { return run.driver->opened == 2; });
}

}  // namespace
}  // namespace lumora
