// The pool of encoders, with a driver that serves only a few, hangs, or refuses.

#include <thread>

#include "codec/encoder_pool.h"
#include "tests/unit/fakes.h"
#include "tests/unit/stand_in_driver.h"

namespace lumora {
namespace {

struct EncoderPoolTest : testing::Test {
  static EncoderRequest request(const EncoderSettings& settings,
                                const char* codec = softwareEncoder) {
    return {.codec = avcodec_find_encoder_by_name(codec),
            .substitute = avcodec_find_encoder_by_name(softwareEncoder),
            .settings = settings};
  }
  void openAhead(const EncoderRequest& wanted) {
    pool->openAhead(*wanted.codec, wanted.settings, 0);
  }
  // Whether one was opened ahead or kept: it is taken.
  bool isAhead(const EncoderSettings& settings) {
    const int before = opened;
    EXPECT_NE(pool->acquire(request(settings), {}).encoder, nullptr);
    return opened == before;
  }
  void release(const EncoderRequest& by, OpenedEncoder result) {
    pool->beginRelease(by);
    pool->release(by, std::move(result));
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

TEST_F(EncoderPoolTest, OpensOneOfEachKindAheadForTheLatestSettings) {
  for (const auto& settings : {preview, take, take}) openAhead(request(settings));
  opener->run();
  EXPECT_EQ(opened, 2);
  openAhead(request(slowTake));
  opener->run();
  EXPECT_TRUE(isAhead(preview));
  EXPECT_FALSE(isAhead(preview));  // it is gone
  EXPECT_FALSE(isAhead(take));
  EXPECT_TRUE(isAhead(slowTake));
}

TEST_F(EncoderPoolTest, KeepsAnEncoderForTheNextSessionUnlessOneWasOpenedForThat) {
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
  openAhead(request(preview));
  openAhead(request(take));
  now = 59;
  opener->run();
  OpenedEncoder running = pool->acquire(request(take), {});
  release(request(preview), pool->acquire(request(preview), {}));
  now = 119;
  opener->run();
  EXPECT_EQ(opened, 2);
  EXPECT_EQ(trimmed, 0);  // the take is still running
  now = 200;
  release(request(take), std::move(running));
  now = 259.9;
  opener->run();
  EXPECT_EQ(trimmed, 0);
  now = 260;
  opener->run();
  EXPECT_EQ(trimmed, 1);
  EXPECT_FALSE(isAhead(preview));
}

struct HardwarePoolTest : EncoderPoolTest {
  void SetUp() override {
    if (!wanted.codec) GTEST_SKIP() << "no such encoder";
  }
  // Calls `acquire` on another thread, where it is to wait.
  auto acquireLater(const std::stop_token& stop = {}) {
    auto acquired =
        std::async(std::launch::async, [=, this] { return pool->acquire(wanted, stop); });
    EXPECT_EQ(acquired.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    return acquired;
  }
  const EncoderRequest wanted = request(preview, "h264_nvenc");
};

TEST_F(HardwarePoolTest, WaitsForAnEncoderThatIsBeingOpenedAndOpensOneThatIsNot) {
  openAhead(wanted);
  EXPECT_NE(pool->acquire(wanted, {}).encoder, nullptr);
  opener->run();
  EXPECT_EQ(opened, 1);

  driver->behaviour = Driver::hangs;
  openAhead(wanted);
  const std::jthread opening([&] { opener->run(); });
  while (opened < 2) std::this_thread::yield();
  auto acquired = acquireLater();
  driver->release.set_value();
  EXPECT_NE(acquired.get().encoder, nullptr);
  EXPECT_EQ(opened, 2);
}

TEST_F(HardwarePoolTest, ClosesTheEncoderOpenedAheadToMakeRoomAndDoesNotKeepASubstitute) {
  driver->limit = 1;
  openAhead(request(take, "h264_nvenc"));
  opener->run();
  const OpenedEncoder first = pool->acquire(wanted, {});
  EXPECT_FALSE(first.isSubstitute);
  EXPECT_EQ(driver->opened, 2);
  OpenedEncoder instead = pool->acquire(wanted, {});
  EXPECT_TRUE(instead.encoder && instead.isSubstitute);
  release(wanted, std::move(instead));
  EXPECT_TRUE(pool->acquire(wanted, {}).isSubstitute);  // it was not kept as the driver's
}

TEST_F(HardwarePoolTest,
       WaitsASecondForAnEncoderThatIsBeingReleasedUnlessTheWaitingSessionIsStopped) {
  driver->limit = 1;
  OpenedEncoder first = pool->acquire(wanted, {});
  pool->beginRelease(wanted);
  std::stop_source stop;
  auto stopped = acquireLater(stop.get_token());
  stop.request_stop();
  EXPECT_EQ(stopped.get().status, AVERROR_EXIT);
  EXPECT_EQ(pool->acquire(wanted, stop.get_token()).status, AVERROR_EXIT);

  auto second = acquireLater();
  first.encoder.reset();
  pool->release(wanted, {});
  EXPECT_FALSE(second.get().isSubstitute);
  EXPECT_EQ(driver->opened, 2);

  const OpenedEncoder third = pool->acquire(wanted, {});
  pool->beginRelease(wanted);
  EXPECT_TRUE(pool->acquire(wanted, {}).isSubstitute);
}

}  // namespace
}  // namespace lumora
