// The sound of takes, on fakes: which sound is where in the movie, how takes stop and fail.

#include "tests/unit/probe.h"

namespace lumora {
namespace {

struct SoundTakes : Takes {
  void SetUp() override { restart(); }
  void restart() { probe.restart({.sound = SoundFormat{8000, 1}}); }
  void startWithSound(Json keys = Json::object()) {
    keys["sound"] = true;
    start(keys);
  }
  // Adds records of 10 ms at 8 kHz, each as soon as it is complete.
  void hear(double from, double to) {
    for (; from < to - 0.005; from += 0.01) {
      probe.clock->now = std::max(probe.clock->now, from + 0.01);
      probe.hear(from, Bytes(160, 1));
    }
  }
  // Feeds and answers a picture whose id is its capture time.
  bool picture(double captured, double read, bool keyframe = false) {
    lastID = static_cast<std::uint64_t>(std::llround(captured * 1e6)) - 1;
    return frame(read, keyframe);
  }
  // Starts a take with sound, adds records from `from` to `to`, and feeds a key frame read at `to`.
  void startHeard(double from, double to, double captured, const Json& keys = Json::object()) {
    startWithSound(keys);
    hear(from, to);
    picture(captured, to, true);
  }
  void breakQueue() {
    probe.dispatch->queues.front()->async([] { throw std::bad_alloc(); });
    probe.run();
  }
  // Expects that the encoder has got `count` samples so far, give or take 2.
  void expectSamples(double count) {
    EXPECT_NEAR(static_cast<double>(probe.sound->samples.size()), count, 2);
  }
};

TEST_F(SoundTakes, HaveSoundFromStartToStopAndPicturesAtTheTimesOfTheirIds) {
  hear(998, 1000.1);
  startWithSound({{"started_at", 1000.0}, {"sound_bit_rate", 64'000}});
  hear(1000.1, 1000.3);
  EXPECT_FALSE(picture(999.99, 1000.3, true));
  picture(1000.25, 1000.3, true);
  EXPECT_EQ(probe.sound->settings.bitRate, 64'000);
  hear(1000.3, 1000.6);
  picture(1000.5, 1000.6);
  stop({{"stopped_at", 1000.645}});
  EXPECT_FALSE(writer().finished);
  EXPECT_TRUE(events("finishing").empty());
  hear(1000.6, 1000.7);
  ASSERT_TRUE(writer().finished);
  EXPECT_EQ(writer().timings,
            (std::vector<std::pair<std::int64_t, std::int64_t>>{{0, 30'000}, {30'000, 8'700}}));
  EXPECT_EQ(writer().end, 38'700);
  expectSamples(5200);
  EXPECT_THAT(probe.sound->samples, testing::Each(0x101));
  const Json saved = complete();
  expectKeys(saved, {{"sound_gaps", 0}, {"dropped", 1}});
  EXPECT_NEAR(saved["sound_missing"].get<double>(), 0, 1e-3);
  start();
  hear(1000.7, 1001);
  frame(1001, true);
  const Json silent = finish();
  EXPECT_EQ(writer().packets, 0);
  EXPECT_FALSE(silent.contains("sound_gaps") || silent.contains("sound_missing"));
}

TEST_F(SoundTakes, HoldTenSecondsOfSoundUntilTheirFirstKeyFrame) {
  startHeard(1000, 1012, 1012, {{"started_at", 1000.0}});
  const auto& samples = probe.sound->samples;
  const auto first = std::ranges::find_if(samples, [](int sample) { return sample != 0; });
  EXPECT_NEAR(static_cast<double>(first - samples.begin()), 16'000, 80);  // give or take a record
  expectSamples(96'000);
}

TEST_F(SoundTakes, WriteSilenceTwoSecondsLateWhileTheDeviceSendsNothing) {
  for (const auto& [end, gaps] : {std::pair{1003.09, 1}, {1000.02, 0}}) {
    restart();
    startHeard(1000, 1000.02, 1000);
    for (const auto& [at, samples] :
         {std::pair{1002.02, 160}, {1003.03, 8160}, {1004.03, 16'160}}) {
      probe.tickAt(at);
      probe.run();
      expectSamples(samples);
    }
    hear(1003.02, 1003.1);
    expectSamples(16'160 + 8000 + 640);
    const Json saved = finish({{"stopped_at", end}});
    EXPECT_EQ(saved["sound_gaps"], gaps);
    EXPECT_NEAR(saved["sound_missing"].get<double>(), 3 * gaps, 1e-3);
  }

  probe.clock->now = 1600;  // the device stays silent
  startWithSound();
  picture(1600, 1600.02, true);
  probe.tickAt(1604.02);
  probe.run();
  // Silence is made 2 s late. It is 1 s later here, because the last records came 1 s late.
  expectSamples(8000);
}

TEST_F(SoundTakes, WaitHalfASecondForTheirSoundButNotAfterTheEndOfTheInput) {
  for (const bool inputEnds : {false, true}) {
    restart();
    startHeard(999.9, 1000.3, 1000);
    probe.clock->now = 1000.4;
    if (inputEnds) probe.readAll();
    if (!inputEnds) stop();
    EXPECT_EQ(writer().finished != nullptr, inputEnds);
    probe.runAt(1000.85);
    EXPECT_EQ(writer().finished != nullptr, inputEnds);
    probe.runAt(1000.95);
    ASSERT_TRUE(writer().finished);
    expectSamples(3200);
    EXPECT_NEAR(complete()["sound_missing"].get<double>(), 0.1, 1e-3);
  }
}

TEST_F(SoundTakes, HaveTheLastRecordThoughItsTimeIsInDoubt) {
  startHeard(1000, 1000.2, 1000);
  probe.clock->now = 1000.25;
  probe.hear(1000.24, Bytes(160, 1));
  stop({{"stopped_at", 1000.25}});
  for (const double now : {1000.66, 1000.76}) probe.runAt(now);
  ASSERT_TRUE(writer().finished);
  EXPECT_NEAR(complete()["sound_missing"].get<double>(), 0.04, 1e-3);
}

TEST_F(SoundTakes, HaveSoundBetweenAnOutageAndTheStopOnlyIfTwoRecordsAgree) {
  const auto hearLong = [this](double from) {
    probe.clock->now = from + 0.25;
    probe.hear(from, Bytes(4000, 1));
  };
  for (const bool areTwo : {true, false}) {
    restart();
    startHeard(1000, 1000.4, 1000);
    probe.clock->now = 1001.2;
    if (areTwo) hearLong(1001);
    stop({{"stopped_at", 1001.2}});
    const double end = probe.clock->now + 0.5;
    hearLong(areTwo ? 1001.25 : 1001.3);
    probe.runAt(end - 0.06);
    EXPECT_FALSE(writer().finished);
    probe.runAt(end - 0.04);
    EXPECT_EQ(writer().finished != nullptr, areTwo);
    probe.runAt(end + 0.01);
    ASSERT_TRUE(writer().finished);
    expectSamples(areTwo ? 10'000 : 9600);  // the writer cuts the track at the stop
    for (int at = 3350; at < 9600; at += 100)
      EXPECT_EQ(probe.sound->samples.at(at), at > 8000 && areTwo ? 0x101 : 0) << at;
    const Json saved = complete();
    EXPECT_EQ(saved["sound_gaps"], areTwo ? 1 : 0);
    EXPECT_NEAR(saved["sound_missing"].get<double>(), areTwo ? 0.6 : 0.8, 1e-3);
  }
}

TEST_F(SoundTakes, FailWithTheirSoundWhileTheProcessGoesOn) {
  for (const auto& [call, message] : {std::pair{"openSound", "sound encoder opening failed (-1)"},
                                      {"addTrack", "recording format unavailable"},
                                      {"encodeSound", "sound encoding failed (-1)"},
                                      {"flushSound", "sound encoding failed (-1)"},
                                      {"appendSound", "recording sample append failed (0)"},
                                      {"queue", "Cannot allocate memory"}}) {
    SCOPED_TRACE(call);
    restart();
    probe.failures->fail(call);
    startHeard(1000, 1000.2, 1000.1);
    hear(1000.2, 1000.4);
    if (call == std::string("queue")) breakQueue();
    probe.command({{"type", "record_stop"}, {"id", takeID}, {"stopped_at", 1000.39}});
    EXPECT_EQ(failure(), message);
    EXPECT_EQ(probe.files->removed.size(), 1u);
    breakQueue();
    EXPECT_TRUE(probe.process->exitCodes.empty());
  }
  restart();
  startHeard(1000, 1000.2, 1000.1);
  stop({{"stopped_at", 1000.15}});
  ASSERT_TRUE(writer().finished);  // the track has ended, so the take needs no more sound
  breakQueue();
  complete();
}

TEST_F(SoundTakes, HaveTheTwoSecondsOfSoundBeforeTheirCommandEvenRightAfterAnotherTake) {
  startHeard(999, 1001.5, 1001);
  finish({{"stopped_at", 1001.4}});
  startHeard(1001.5, 1002, 1001.6, {{"started_at", 999.6}});
  finish({{"stopped_at", 1001.9}});
  expectSamples(2.4 * 8000);  // all since the take's start; the writer cuts the track at the stop
  EXPECT_THAT(probe.sound->samples, testing::Each(0x101));
}

TEST_F(SoundTakes, LeaveOutTheRestOfALongSilenceIfTheHelperEnds) {
  startWithSound({{"started_at", 971.0}});
  hear(999.9, 1000);
  feed(1000);
  probe.lastSession().answer(0, keySample());
  probe.queue->run();
  for (int i = 0; i < 41; ++i) probe.dispatch->queues.back()->runNext();
  expectSamples(40 * 2000);
  probe.process->signals.at(15)();
  probe.queue->run();
  for (int i = 0; i < 20; ++i) probe.dispatch->queues.back()->runNext();
  EXPECT_FALSE(writer().finished);
  probe.runAt(1001.4);
  ASSERT_TRUE(writer().finished);
  EXPECT_LT(std::ssize(probe.sound->samples), 100 * 2000);
}

TEST_F(SoundTakes, KeepSoundToTheirEndEvenIfTheyFailWhileWaitingForSound) {
  for (const bool waits : {false, true}) {
    restart();
    startHeard(999.9, 1000.2, 1000.1, {{"on_failure", "keep"}});
    writer().onDisk = {1, 1000};
    picture(1000.3, 1000.4);
    if (waits) stop({{"stopped_at", 1000.39}}), breakQueue();
    lastID = 1'000'500'000;
    if (!waits) feed(1000.5), probe.answer(nullptr, -1);
    ASSERT_TRUE(writer().finished);
    expectSamples((0.2 + 1.0 / 60) * 8000);
    probe.runAt(1001);
    writer().complete(WriterStatus::completed);
    const Json failed = events("failed").at(0);
    EXPECT_TRUE(failed.contains("kept_path"));
    EXPECT_NEAR(failed["sound_missing"].get<double>(), 0.1 + 1.0 / 60, 1e-3);
  }
}

TEST_F(SoundTakes, DropSoundForWhichAHangingQueueHasNoRoom) {
  startHeard(1000, 1000.05, 1000);
  for (const double at : {1000.05, 1002.05, 1004.05})
    probe.take()->addSound({SoundRecord{at, 16'000, Bytes(32'000), at + 2}}, false);
  probe.run();
  expectSamples(32'400);
}

}  // namespace
}  // namespace lumora
