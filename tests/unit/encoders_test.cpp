// The choice of encoders and how they are opened, with drivers that refuse and that hang.

#include "codec/libav_encoders.h"
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
  enum Behaviour { works, refusesOnce, refuses, hangs };
  std::atomic<Behaviour> behaviour = works;
  std::atomic<int> opened = 0;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future();

  Status open(EncoderSpec spec, const EncoderSettings& settings,
              std::unique_ptr<LibavEncoder>& encoder) {
    if (isHardware(*spec.codec)) {
      if (std::string_view(spec.codec->name) != "h264_nvenc") return AVERROR(ENODEV);
      const Behaviour now = behaviour;
      if (now == hangs) released.wait();
      if (now == refusesOnce) behaviour = works;
      if (now != works) return AVERROR(EBUSY);
      ++opened;
      spec.codec = avcodec_find_encoder_by_name(softwareEncoder);
    }
    return LibavEncoder::open(spec, settings, encoder);
  }
};

using Answer = std::pair<Status, std::uint32_t>;  // and its info flags

Answer encodeOne(CompressionSession& session) {
  session.setProperty(SessionProperty::expectedFrameRate, preview.frameRate);
  session.setProperty(SessionProperty::maxKeyFrameInterval, preview.keyFrameInterval);
  session.setProperty(SessionProperty::averageBitRate, preview.bitRate);
  EXPECT_EQ(session.prepareToEncodeFrames(), 0);
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

TEST(LibavEncoders, ADriverThatRefusesOrHangsCostsASessionOnlyWhereSoftwareIsNoChoice) {
  using enum Driver::Behaviour;
  constexpr Status none = AVERROR_ENCODER_NOT_FOUND;
  for (const auto& [choice, whenChosen, later, created, answer] :
       {std::tuple{"auto", works, works, 0, Answer{0, 0}},
        {"auto", works, refuses, 0, Answer{0, 0}},
        {"auto", works, hangs, 0, Answer{0, 0}},
        {"auto", refuses, refuses, 0, Answer{0, 0}},
        {"auto", hangs, hangs, 0, Answer{0, 0}},
        {"hardware", works, refuses, 0, Answer{AVERROR(EBUSY), infoNotPrepared}},
        {"h264_nvenc", works, hangs, 0, Answer{AVERROR(ETIMEDOUT), infoNotPrepared}},
        {"hardware", refuses, refuses, none, Answer{0, 0}},
        {"hardware", hangs, hangs, none, Answer{0, 0}}}) {
    SCOPED_TRACE(std::string(choice) + std::to_string(whenChosen) + std::to_string(later));
    const auto driver = std::make_shared<Driver>();
    driver->behaviour = whenChosen;
    const auto queue = std::make_shared<AsioQueue>("state");
    const auto encoders = std::make_shared<LibavEncoders>(
        parseEncoderChoice(choice), queue, std::make_shared<AsioDispatch>(queue),
        PicturePool::make(), [driver](auto&&... all) { return driver->open(all...); });
    encoders->choose(take, take);
    if (whenChosen != hangs) {
      std::promise<void> chosen;
      encoders->whenChosen([&] { chosen.set_value(); });
      chosen.get_future().wait();
    }
    driver->behaviour = later;
    std::shared_ptr<CompressionSession> session;
    EXPECT_EQ(encoders->createSession(SessionKind::preview, 2, 2, {}, session), created);
    if (session) {
      EXPECT_EQ(encodeOne(*session), answer);
      // Chosen with one, and the session with one more.
      const int byDriver = whenChosen == works ? (later == works ? 2 : 1) : 0;
      EXPECT_EQ(driver->opened, byDriver);
      session->invalidate();
    }
    driver->release.set_value();
  }
}

TEST(EncoderSource, MakesRoomForASessionBeforeSoftwareTakesItsPlaceForOnce) {
  const auto driver = std::make_shared<Driver>();
  double now = 0;
  const EncoderSource source{
      .spec = {.codec = avcodec_find_encoder_by_name("h264_nvenc"),
               .pictures = PicturePool::make()},
      .open = [driver](auto&&... all) { return driver->open(all...); },
      .substitute = avcodec_find_encoder_by_name(softwareEncoder),
      .spares = std::make_shared<SpareEncoders>(std::make_shared<ManualQueue>(now), [] {})};
  if (source.spec.codec == nullptr) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  source.giveBack(preview, source.take(preview));
  driver->behaviour = Driver::refusesOnce;
  OpenResult opened = source.take(take);
  EXPECT_EQ(driver->opened, 2);
  EXPECT_FALSE(opened.isSubstitute);
  driver->behaviour = Driver::refusesOnce;  // and there is no room to be made
  opened = source.take(take);
  EXPECT_TRUE(opened.encoder && opened.isSubstitute);
  source.giveBack(take, std::move(opened));
  EXPECT_FALSE(source.take(take).isSubstitute);
  EXPECT_EQ(driver->opened, 3);
}

TEST(LibavEncoders, OpensAheadAndGivesMemoryBackAMinuteLater) {
  for (const bool takes : {false, true}) {
    double now = 0;
    int opened = 0;
    int givenBack = 0;
    const auto queue = std::make_shared<ManualQueue>(now);
    const auto dispatch = std::make_shared<FakeDispatch>(now);
    const auto encoders = std::make_shared<LibavEncoders>(
        parseEncoderChoice("software"), queue, dispatch, PicturePool::make(),
        [&](auto&&... all) {
          ++opened;
          return LibavEncoder::open(all...);
        },
        [&] { ++givenBack; });
    ManualQueue& opener = *dispatch->queues.at(0);
    encoders->choose(preview, take);
    opener.run();
    encoders->warmUp(take, take);
    std::exchange(dispatch->detached, {}).at(0)();
    opener.run();
    EXPECT_EQ(opened, 2);
    if (takes) encoders->openAhead(slowTake);
    opener.run();
    EXPECT_EQ(opened, takes ? 3 : 2);
    EXPECT_EQ(givenBack, 0);
    now = SpareEncoders::lifetime;
    opener.run();
    // With both encoders, and what was touched beyond them unless a take needs it.
    EXPECT_EQ(givenBack, takes ? 2 : 3);
  }
}

struct SpareEncodersTest : testing::Test {
  std::unique_ptr<LibavEncoder> open(const EncoderSettings& settings) {
    std::unique_ptr<LibavEncoder> encoder;
    const EncoderSpec spec{.codec = avcodec_find_encoder_by_name(softwareEncoder),
                           .pictures = PicturePool::make()};
    EXPECT_EQ(LibavEncoder::open(spec, settings, encoder), 0);
    return encoder;
  }
  auto takeNow(const EncoderSettings& settings) { return spares->take(settings, {}); }

  double now = 0;
  int closed = 0;
  std::shared_ptr<ManualQueue> timers = std::make_shared<ManualQueue>(now);
  std::shared_ptr<SpareEncoders> spares =
      std::make_shared<SpareEncoders>(timers, [this] { ++closed; });
};

TEST_F(SpareEncodersTest, OneThatIsBeingOpenedIsWaitedForUnlessItFails) {
  for (const bool fails : {false, true}) {
    spares->want(preview);
    EXPECT_EQ(spares->beginOpening(), preview);
    EXPECT_EQ(takeNow(preview), nullptr);  // not for longer than was asked
    auto taken = std::async(std::launch::async, [&] {
      return spares->take(preview, OpeningClock::now() + std::chrono::minutes(1));
    });
    EXPECT_EQ(taken.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    auto encoder = fails ? nullptr : open(preview);
    const LibavEncoder* given = encoder.get();
    spares->endOpening(preview, std::move(encoder));
    EXPECT_EQ(taken.get().get(), given);
  }
}

TEST_F(SpareEncodersTest, TheLatestThatIsWantedIsOpenedUnlessThereOrTaken) {
  spares->wantFirst(take);
  EXPECT_EQ(spares->beginOpening(), take);
  spares->endOpening(take, nullptr);
  spares->want(take);
  spares->want(slowTake);
  spares->wantFirst(take);  // too late
  EXPECT_EQ(spares->beginOpening(), slowTake);
  spares->endOpening(slowTake, nullptr);
  EXPECT_EQ(spares->beginOpening(), std::nullopt);
  spares->want(take);
  EXPECT_EQ(takeNow(take), nullptr);  // its user opens it
  EXPECT_EQ(spares->beginOpening(), std::nullopt);
  spares->give(take, open(take));
  spares->want(take);
  EXPECT_EQ(spares->beginOpening(), std::nullopt);
}

TEST_F(SpareEncodersTest, ThereIsOnePerKindForAMinute) {
  spares->give(preview, open(preview));
  spares->give(take, open(take));
  spares->want(slowTake);
  spares->beginOpening();
  EXPECT_EQ(takeNow(take), nullptr);  // made room
  now = 30;
  spares->endOpening(slowTake, open(slowTake));
  now = 59.9;
  timers->run();
  spares->give(preview, takeNow(preview));  // used: another minute
  now = 60;
  timers->run();
  EXPECT_NE(takeNow(preview), nullptr);
  EXPECT_EQ(closed, 0);
  now = 90;
  timers->run();
  EXPECT_EQ(takeNow(slowTake), nullptr);
  EXPECT_EQ(closed, 1);
}

}  // namespace
}  // namespace lumora
