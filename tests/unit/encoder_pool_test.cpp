// The pool of encoders, with a driver that serves only a few, hangs, or refuses.

#include "codec/encoder_pool.h"
#include "encode/session_settings.h"
#include "tests/unit/fakes.h"
#include "tests/unit/stand_in_driver.h"

namespace lumora {
namespace {

const EncoderSettings preview = sessionSettings(SessionKind::preview, {2, 2}, 60);
const EncoderSettings take = sessionSettings(SessionKind::recording, {2, 2}, 60);
const EncoderSettings slowTake = sessionSettings(SessionKind::recording, {2, 2}, 15);

struct EncoderPoolTest : testing::Test {
  EncoderRequest request(const EncoderSettings& settings, const char* codec = softwareEncoder) {
    return {.codec = avcodec_find_encoder_by_name(codec),
            .substitute = avcodec_find_encoder_by_name(softwareEncoder),
            .settings = settings};
  }
  void openAhead(const EncoderSettings& settings) {
    pool->openAhead(*request(settings).codec, settings, 0);
  }
  // Whether it was opened ahead, or kept.
  bool isAhead(const EncoderSettings& settings) {
    const int before = opened;
    EXPECT_NE(pool->acquire(request(settings), {}).encoder, nullptr);
    return opened == before;
  }
  void release(const EncoderSettings& settings, OpenedEncoder result) {
    pool->beginRelease(request(settings));
    pool->release(request(settings), std::move(result));
  }

  double now = 0;
  std::atomic<int> opened = 0;
  int trimmed = 0;
  std::shared_ptr<Driver> driver = std::make_shared<Driver>();
  std::shared_ptr<ManualQueue> opener = std::make_shared<ManualQueue>(now);
  std::shared_ptr<EncoderPool> pool = std::make_shared<EncoderPool>(
      [this](auto&&... all) {
        ++opened;
        return driver->open(all...);
      },
      opener, [this] { ++trimmed; });
};

TEST_F(EncoderPoolTest, OneOfEachKindIsOpenedAheadForTheSettingsThatWereAskedForLast) {
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

TEST_F(EncoderPoolTest, OneThatIsBeingOpenedIsWaitedForAndOneThatIsNotIsOpenedByItsUser) {
  const EncoderRequest wanted = request(take, "h264_nvenc");
  if (wanted.codec == nullptr) GTEST_SKIP() << "a libavcodec without h264_nvenc";
  pool->openAhead(*wanted.codec, wanted.settings, 0);
  EXPECT_NE(pool->acquire(wanted, {}).encoder, nullptr);
  opener->run();
  EXPECT_EQ(opened, 1);

  driver->behaviour = Driver::hangs;
  pool->openAhead(*wanted.codec, wanted.settings, 0);
  const std::jthread opening([&] { opener->run(); });
  while (opened < 2) std::this_thread::yield();
  auto acquired = std::async(std::launch::async, [&] { return pool->acquire(wanted, {}); });
  EXPECT_EQ(acquired.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  driver->release.set_value();
  EXPECT_NE(acquired.get().encoder, nullptr);
  EXPECT_EQ(opened, 2);
}

TEST_F(EncoderPoolTest, AnEncoderServesTheNextSessionUnlessOneWasOpenedForThat) {
  for (const bool isOpened : {false, true}) {
    OpenedEncoder first = pool->acquire(request(take), {});
    if (isOpened) openAhead(slowTake);
    opener->run();
    release(take, std::move(first));
    EXPECT_EQ(isAhead(take), !isOpened);
    EXPECT_EQ(isAhead(slowTake), isOpened);
  }
}

// A driver that serves one encoder at a time.
struct LimitedDriver : EncoderPoolTest {
  void SetUp() override {
    if (wanted.codec == nullptr) GTEST_SKIP() << "a libavcodec without h264_nvenc";
    driver->limit = 1;
  }
  EncoderRequest wanted = request(preview, "h264_nvenc");
};

TEST_F(LimitedDriver, OneThatWasOpenedAheadMakesRoomThenTheSubstituteTakesItsPlaceForOnce) {
  pool->openAhead(*wanted.codec, take, 0);
  opener->run();
  const OpenedEncoder first = pool->acquire(wanted, {});
  EXPECT_FALSE(first.isSubstitute);
  EXPECT_EQ(driver->opened, 2);
  OpenedEncoder instead = pool->acquire(wanted, {});
  EXPECT_TRUE(instead.encoder && instead.isSubstitute);
  pool->beginRelease(wanted);
  pool->release(wanted, std::move(instead));
  EXPECT_TRUE(pool->acquire(wanted, {}).isSubstitute);  // it was not kept as the driver's
}

TEST_F(LimitedDriver, OneThatIsReleasedIsWaitedForUnlessItNeverComes) {
  OpenedEncoder first = pool->acquire(wanted, {});
  pool->beginRelease(wanted);
  auto second = std::async(std::launch::async, [&] { return pool->acquire(wanted, {}); });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  first.encoder.reset();
  pool->release(wanted, {});
  EXPECT_FALSE(second.get().isSubstitute);
  EXPECT_EQ(driver->opened, 2);

  const OpenedEncoder third = pool->acquire(wanted, {});
  pool->beginRelease(wanted);
  EXPECT_TRUE(pool->acquire(wanted, {}).isSubstitute);  // a second later
}

TEST_F(LimitedDriver, ASessionThatIsStoppedWaitsForNone) {
  const OpenedEncoder first = pool->acquire(wanted, {});
  pool->beginRelease(wanted);
  std::stop_source stop;
  auto second =
      std::async(std::launch::async, [&] { return pool->acquire(wanted, stop.get_token()); });
  EXPECT_EQ(second.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  stop.request_stop();
  EXPECT_EQ(second.get().status, AVERROR_EXIT);
  EXPECT_EQ(pool->acquire(wanted, stop.get_token()).status, AVERROR_EXIT);
}

TEST_F(EncoderPoolTest, UnusedMemoryGoesBackAMinuteAfterTheLastTake) {
  openAhead(preview);
  openAhead(take);
  now = 59;
  opener->run();
  OpenedEncoder running = pool->acquire(request(take), {});
  release(preview, pool->acquire(request(preview), {}));
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

}  // namespace
}  // namespace lumora
