// Which encoders sessions get, with drivers that refuse, hang, answer late and serve only a few.

#include "codec/system_encoders.h"
#include "encode/session_settings.h"
#include "system/asio_dispatch.h"
#include "tests/unit/fakes.h"

namespace lumora {
namespace {

const EncoderSettings preview = sessionSettings(SessionKind::preview, {2, 2}, 60);
const EncoderSettings take = sessionSettings(SessionKind::recording, {2, 2}, 60);
const EncoderSettings slowTake = sessionSettings(SessionKind::recording, {2, 2}, 15);

// Stands behind "h264_nvenc"; all other hardware is missing. What works is software.
struct Driver {
  enum Behaviour { works, refusesOnce, refuses, hangs, throws };
  std::atomic<Behaviour> behaviour = works;
  std::atomic<int> opened = 0;
  std::atomic<bool> othersAsked = false;
  int limit = 99;  // encoders at once
  std::promise<void> release;
  std::shared_future<void> released = release.get_future();
  std::mutex mutex;
  std::vector<std::weak_ptr<PicturePool>> inUse = {};  // each encoder has a pool of its own

  Status open(EncoderSpec spec, const EncoderSettings& settings,
              std::unique_ptr<LibavEncoder>& encoder) {
    if (isHardware(*spec.codec)) {
      if (std::string_view(spec.codec->name) != "h264_nvenc") {
        othersAsked = true;
        return AVERROR(ENODEV);
      }
      const Behaviour now = behaviour;
      if (now == hangs) released.wait();
      if (now == throws) throw std::runtime_error("a driver's");
      if (now == refusesOnce) behaviour = works;
      if (now == refusesOnce || now == refuses) return AVERROR(EBUSY);
      spec.pictures = PicturePool::make();
      const std::lock_guard hold(mutex);
      std::erase_if(inUse, [](const auto& pool) { return pool.expired(); });
      if (static_cast<int>(inUse.size()) == limit) return AVERROR(EBUSY);
      inUse.push_back(spec.pictures);
      ++opened;
      spec.codec = avcodec_find_encoder_by_name(softwareEncoder);
    }
    return LibavEncoder::open(spec, settings, encoder);
  }
  OpenEncoder opening(std::shared_ptr<Driver> self) {
    return [self = std::move(self)](auto&&... all) { return self->open(all...); };
  }
};

bool isMissing(const char* encoder) { return avcodec_find_encoder_by_name(encoder) == nullptr; }

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
    encoders = std::make_shared<LibavEncoders>(parseEncoderChoice(choice), queue,
                                               std::make_shared<AsioDispatch>(queue),
                                               PicturePool::make(), driver->opening(driver));
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
  std::shared_ptr<LibavEncoders> encoders;
};

TEST(LibavEncoders, ADriverThatRefusesOrHangsCostsASessionOnlyWhereSoftwareIsNoChoice) {
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

TEST(LibavEncoders, NothingWaitsForADriverAndALateAnswerCountsFromThenOn) {
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

TEST(LibavEncoders, ATakeBeginsWithWhatWasOpenedForItThoughHardwareIsFoundMeanwhile) {
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

TEST(LibavEncoders, TheNextSessionGetsTheEncoderThatTheLastOneGivesBack) {
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

TEST(LibavEncoders, ASessionWaitsForAnEncoderThatIsOpenedForAStoppedOne) {
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

TEST(LibavEncoders, HardwareThatIsFoundIsOpenedForTheNextTakeToo) {
  if (isMissing("h264_nvenc")) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  EncoderRun run("auto");
  run.prepare(preview, take);
  while (run.driver->opened < 2) std::this_thread::yield();
}

struct EncoderSourceTest : testing::Test {
  EncoderRequest request(const EncoderSettings& settings, const char* codec = softwareEncoder) {
    return {.spec = {.codec = avcodec_find_encoder_by_name(codec), .pictures = pictures},
            .substitute = avcodec_find_encoder_by_name(softwareEncoder),
            .settings = settings};
  }
  void openAhead(const EncoderSettings& settings) {
    source->openAhead(request(settings).spec, settings, 0);
  }
  // Whether it was opened ahead, or kept.
  bool isAhead(const EncoderSettings& settings) {
    const int before = opened;
    EXPECT_NE(source->acquire(request(settings), {}).encoder, nullptr);
    return opened == before;
  }
  void release(const EncoderSettings& settings, OpenResult result) {
    source->beginRelease(request(settings));
    source->release(request(settings), std::move(result));
  }

  double now = 0;
  std::atomic<int> opened = 0;
  int trimmed = 0;
  std::shared_ptr<PicturePool> pictures = PicturePool::make();
  std::shared_ptr<Driver> driver = std::make_shared<Driver>();
  std::shared_ptr<ManualQueue> opener = std::make_shared<ManualQueue>(now);
  std::shared_ptr<EncoderSource> source = std::make_shared<EncoderSource>(
      [this](auto&&... all) {
        ++opened;
        return driver->open(all...);
      },
      opener, [this] { ++trimmed; });
};

TEST_F(EncoderSourceTest, OneOfEachKindIsOpenedAheadForTheSettingsThatWereAskedForLast) {
  openAhead(preview);
  openAhead(take);
  openAhead(take);
  opener->run();
  EXPECT_EQ(opened, 2);
  openAhead(slowTake);
  opener->run();
  EXPECT_TRUE(isAhead(preview));
  EXPECT_FALSE(isAhead(preview));  // it is gone
  EXPECT_FALSE(isAhead(take));
  EXPECT_TRUE(isAhead(slowTake));
}

TEST_F(EncoderSourceTest, OneThatIsBeingOpenedIsWaitedForAndOneThatIsNotIsOpenedByItsUser) {
  const EncoderRequest wanted = request(take, "h264_nvenc");
  if (wanted.spec.codec == nullptr) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  source->openAhead(wanted.spec, wanted.settings, 0);
  EXPECT_NE(source->acquire(wanted, {}).encoder, nullptr);
  opener->run();
  EXPECT_EQ(opened, 1);

  driver->behaviour = Driver::hangs;
  source->openAhead(wanted.spec, wanted.settings, 0);
  const std::jthread opening([&] { opener->run(); });
  while (opened < 2) std::this_thread::yield();
  auto acquired = std::async(std::launch::async, [&] { return source->acquire(wanted, {}); });
  EXPECT_EQ(acquired.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  driver->release.set_value();
  EXPECT_NE(acquired.get().encoder, nullptr);
  EXPECT_EQ(opened, 2);
}

TEST_F(EncoderSourceTest, AnEncoderServesTheNextSessionUnlessOneWasOpenedForThat) {
  for (const bool isOpened : {false, true}) {
    OpenResult first = source->acquire(request(take), {});
    if (isOpened) openAhead(slowTake);
    opener->run();
    release(take, std::move(first));
    EXPECT_EQ(isAhead(take), !isOpened);
    EXPECT_EQ(isAhead(slowTake), isOpened);
  }
}

// A driver that serves one encoder at a time.
struct LimitedDriver : EncoderSourceTest {
  void SetUp() override {
    if (wanted.spec.codec == nullptr) GTEST_SKIP() << "a libavcodec without h264_nvenc";
    driver->limit = 1;
  }
  EncoderRequest wanted = request(preview, "h264_nvenc");
};

TEST_F(LimitedDriver, OneThatWasOpenedAheadMakesRoomThenTheSubstituteTakesItsPlaceForOnce) {
  source->openAhead(wanted.spec, take, 0);
  opener->run();
  const OpenResult first = source->acquire(wanted, {});
  EXPECT_FALSE(first.isSubstitute);
  EXPECT_EQ(driver->opened, 2);
  OpenResult instead = source->acquire(wanted, {});
  EXPECT_TRUE(instead.encoder && instead.isSubstitute);
  source->beginRelease(wanted);
  source->release(wanted, std::move(instead));
  EXPECT_TRUE(source->acquire(wanted, {}).isSubstitute);  // it was not kept as the driver's
}

TEST_F(LimitedDriver, OneThatIsReleasedIsWaitedForUnlessItNeverComes) {
  OpenResult first = source->acquire(wanted, {});
  source->beginRelease(wanted);
  auto second = std::async(std::launch::async, [&] { return source->acquire(wanted, {}); });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  first.encoder.reset();
  source->release(wanted, {});
  EXPECT_FALSE(second.get().isSubstitute);
  EXPECT_EQ(driver->opened, 2);

  const OpenResult third = source->acquire(wanted, {});
  source->beginRelease(wanted);
  EXPECT_TRUE(source->acquire(wanted, {}).isSubstitute);  // a second later
}

TEST_F(LimitedDriver, ASessionThatIsStoppedWaitsForNone) {
  const OpenResult first = source->acquire(wanted, {});
  source->beginRelease(wanted);
  std::stop_source stop;
  auto second =
      std::async(std::launch::async, [&] { return source->acquire(wanted, stop.get_token()); });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  stop.request_stop();
  EXPECT_EQ(second.get().status, AVERROR_EXIT);
  EXPECT_EQ(source->acquire(wanted, stop.get_token()).status, AVERROR_EXIT);
}

TEST_F(EncoderSourceTest, UnusedMemoryGoesBackAMinuteAfterTheLastTake) {
  openAhead(preview);
  openAhead(take);
  now = 59;
  opener->run();
  OpenResult running = source->acquire(request(take), {});
  release(preview, source->acquire(request(preview), {}));
  now = 119;
  opener->run();
  EXPECT_EQ(opened, 2);
  EXPECT_EQ(trimmed, 0);  // the take is still running
  now = 200;
  release(take, std::move(running));
  now = 259.9;
  opener->run();
  EXPECT_EQ(trimmed, 0);
  now = 260;
  opener->run();
  EXPECT_EQ(trimmed, 1);
  EXPECT_FALSE(isAhead(preview));
}

TEST(LibavEncoders, PreparesAPreviewThenTheLikeliestTakeUnlessAnotherComesFirst) {
  for (const bool comesFirst : {false, true}) {
    double now = 0;
    int opened = 0;
    int trimmed = 0;
    const auto dispatch = std::make_shared<FakeDispatch>(now);
    const auto queue = std::make_shared<ManualQueue>(now);
    const auto encoders = std::make_shared<LibavEncoders>(
        parseEncoderChoice("software"), queue, dispatch, PicturePool::make(),
        [&](auto&&... all) {
          ++opened;
          return LibavEncoder::open(all...);
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
