// Sound: its records, and where they lie in a take of two hours.

#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <random>
#include <utility>

#include "sound/device_clock.h"
#include "sound/sound_placing.h"

namespace lumora {
namespace {

TEST(SoundRecord, HasGrowingIdsWholeSamplesAndATimeOfNow) {
  const SoundFormat stereo{11025, 2};  // a quarter of a second is 2756 samples and a part of one
  EXPECT_TRUE(isValidSound(1, 0, 4, stereo) && isValidSound(9, 8, 2756 * 4, stereo));
  EXPECT_FALSE(isValidSound(0, 0, 4, stereo) || isValidSound(8, 8, 4, stereo));
  for (const std::uint32_t bytes : {0u, 6u, 2757u * 4, 0xFFFFFFFCu})
    EXPECT_FALSE(isValidSound(9, 8, bytes, stereo)) << bytes;
  EXPECT_TRUE(isTimely(100.0499, 100) && isTimely(70.001, 100));
  EXPECT_FALSE(isTimely(100.051, 100) || isTimely(69.999, 100));
}

TEST(SoundRecord, IsKeptByItsTimeAndByItsSamples) {
  std::deque<SoundRecord> records = {{1, 4000}, {2, 4000}, {2.5, 4000}};
  keepLatest(records, 1.5, 8000);
  EXPECT_EQ(records.size(), 3u);
  records.push_back({2.6, 10});
  keepLatest(records, 1.5, 8000);
  EXPECT_EQ(records.front().capturedAt, 2);
  records.push_back({1, 4000});  // the clock has jumped
  keepLatest(records, 1.5, 8000);
  EXPECT_EQ(records.front().capturedAt, 2.5);
}

TEST(DeviceClock, HoldsWhatIsOffTheLineUntilThatIsCertain) {
  DeviceClock clock(48000);
  double captured = 10;
  const auto add = [&](double late) {
    return clock.add({std::exchange(captured, captured + 0.02) + late, 960}).size();
  };
  EXPECT_EQ(add(0) + add(0) + add(0), 3u);
  EXPECT_EQ(add(0.2), 0u);  // read late
  EXPECT_EQ(add(0), 2u);
  EXPECT_EQ(add(1) + add(1) + add(1), 0u);  // a jump
  EXPECT_EQ(add(1), 4u);
  int held = 0;
  for (double late = 2; add(late) == 0; late += 0.03) ++held;  // never twice by the same
  EXPECT_NEAR(held, 25, 1);                                    // half a second
  EXPECT_EQ(add(9) + clock.flush().size(), 1u);
}

TEST(DeviceClock, FollowsAShortStepAtOnceUnlessTimesScatter) {
  DeviceClock clock(48000);
  double captured = 10;
  double off = 0;    // seconds from the last stated time to where the clock puts that record
  double drift = 0;  // by the clock
  const auto add = [&](double late) {
    const double stated = std::exchange(captured, captured + 0.05 * (1 + 1e-4)) + late;
    const std::vector<SoundRecord> known = clock.add({stated, 2400});
    if (known.empty()) return known.size();
    off = std::abs(known.back().capturedAt - stated);
    drift = known.back().drift;
    return known.size();
  };
  for (int i = 0; i < 9; ++i) add(-1);  // so far off it is no scatter
  for (int i = 0; i < 300; ++i) add(0);
  EXPECT_EQ(add(0.02), 0u);
  EXPECT_EQ(add(0.02), 2u);
  EXPECT_LT(off, 1e-3);
  for (int i = 0; i < 80; ++i) EXPECT_EQ(add(0.02), 1u);
  EXPECT_EQ(add(0), 1u);  // so soon after the last, it may be scatter
  EXPECT_GT(off, 0.015);
  for (int i = 0; i < 25; ++i) EXPECT_EQ(add(0), 1u);
  EXPECT_LT(off, 1e-3);
  EXPECT_NEAR(drift, 1e-4, 2e-5);  // a step tells nothing of it
}

TEST(SoundPlacing, FillsOrCutsBothEndsOfTheTrackToTheSample) {
  SoundPlacing early(48000, 10);
  EXPECT_EQ(early.place({9.98, 960}, 0).cut, 960);
  EXPECT_EQ(early.place({9.995, 960}, 0).cut, 240);
  EXPECT_NEAR(early.missing(10.02), 0.005, 1e-9);
  SoundPlacing late(8000, 10);
  EXPECT_EQ(late.place({10.005, 2000}, 0).silence, 40);
  EXPECT_NEAR(late.missing(10.001), 0.001, 1e-9);  // never more than the movie has
  SoundPlacing stopped(48000, 10);
  stopped.place({10, 48000}, 0);
  EXPECT_EQ(stopped.fill(31, 1), 20 * 48000);
  EXPECT_NEAR(stopped.missing(11.5), 0.5, 1e-9);  // the movie has only its beginning
  EXPECT_EQ(stopped.place({32, 960}, 21).silence, 48000);
  EXPECT_EQ(stopped.place({33, 960}, 22.02).silence, 47040);
  EXPECT_NEAR(stopped.missing(11.5), 0.5, 1e-9);  // the rest lies behind its end
  EXPECT_EQ(stopped.gaps(11.5), 1);
  EXPECT_EQ(stopped.gaps(33), 2);
  EXPECT_EQ(early.gaps(20) + late.gaps(20), 0);
}

struct Device {
  const char* what;
  int rate;
  int samples;      // of a record; 0: any number
  double slow;      // ppm, at the start; it warms up, and in the end this is less by a third
  double jump = 0;  // seconds that the times gain after an hour
  int gaps = 0;
  int lost = 0;           // of so many records one is lost
  double missing = 0;     // seconds
  double hang = 0;        // seconds each minute in which the parent reads nothing
  double jitter = 0.005;  // seconds that the parent's times are off, at most
  double interval = 0;    // seconds between the times at which the parent looks for records
};

// A take of two hours, with a resampler that is exact.
struct Take {
  static constexpr double start = 1000.03;
  static constexpr double end = start + 7200;
  Device device;
  DeviceClock clock{device.rate};
  SoundPlacing placing{device.rate, start};
  std::deque<double> capturedAt = {};  // of the records that the clock has not returned
  double length = 0;
  int compensation = 0;
  double worst = 0;        // seconds off
  double afterAnHour = 0;  // seconds off
  int mostCompensation = 0;
  int mostChanged = 0;  // `compensation`, from record to record

  double seconds(std::int64_t samples) const { return static_cast<double>(samples) / device.rate; }

  void run() {
    std::mt19937 random(7);
    std::uniform_real_distribution<> share;
    double time = start - (device.interval > 0 ? 10 : 0.03);
    for (int i = 1; time < end; ++i) {
      if (time > start + 3600) time += std::exchange(device.jump, 0);
      const auto any = std::llround(share(random) * (device.rate * 0.25 - 2)) + 1;
      const std::int64_t samples = device.samples > 0 ? device.samples : any;
      double late = std::max(device.hang - std::fmod(time, 60), 0.0);
      if (device.interval > 0)
        late += device.interval / 2 - std::fmod(time + seconds(samples), device.interval);
      const SoundRecord record{time + late + device.jitter * (1 - 2 * share(random)), samples};
      const double slow = device.slow * (1 - (time - start) / (end - start) / 3);
      const double began = std::exchange(time, time + seconds(samples) * (1 + slow * 1e-6));
      if (device.lost > 0 && i % device.lost == 0) continue;
      capturedAt.push_back(began);
      for (const SoundRecord& known : clock.add(record)) place(known);
    }
  }

  void place(const SoundRecord& record) {
    length += seconds(placing.fillBefore(record, Take::end, length));
    const SoundPlacement placement = placing.place(record, length);
    const double wanted = capturedAt.front() - start + seconds(placement.cut);
    capturedAt.pop_front();
    length += seconds(placement.silence);
    if (placement.cut == record.samples) return;
    worst = std::max(worst, std::abs(length - wanted));
    if (wanted < 3600) afterAnHour = std::abs(length - wanted);
    mostCompensation = std::max(mostCompensation, std::abs(placement.compensation));
    if (wanted > 1)
      mostChanged = std::max(mostChanged, std::abs(placement.compensation - compensation));
    compensation = placement.compensation;
    length += seconds(record.samples - placement.cut) * (1 + compensation * 1e-6);
  }
};

TEST(SoundPlacing, KeepsEverySampleWithin10MillisecondsForTwoHours) {
  const Device devices[] = {{"100 ppm fast", 48000, 480, -100},
                            {"300 ppm slow", 44100, 1024, 300},
                            {"500 ppm slow, any sizes", 10000, 0, 500},
                            {"500 ppm fast, long records", 48000, 12000, -500},
                            {"jumps ahead", 22050, 0, -100, 0.2, 1, 0, 0.2},
                            {"jumps back", 48000, 12000, 300, -0.2, 1},
                            {"jumps by less than a record", 48000, 2400, 100, 0.03, 1, 0, 0.03},
                            {"jumps back by 12 ms", 48000, 4096, 100, -0.012, 1},
                            {"stops for 3 s", 96000, 960, 300, 3, 1, 0, 3},
                            {"loses records", 48000, 960, 100, 0, 35, 10007, 35 * 0.02},
                            {"is read late", 48000, 960, -300, 0, 0, 0, 0, 0.2},
                            {"is read late, 50 ms", 48000, 2400, 100, 0, 0, 0, 0, 0.2},
                            {"is read late, 60 ms", 48000, 2880, 100, 0, 0, 0, 0, 0.3},
                            {"is read late, 64 ms", 48000, 3072, 100, 0, 0, 0, 0, 0.2},
                            {"jitters more", 48000, 9600, 100, 0, 0, 0, 0, 0, 0.008},
                            {"jitters, long records", 48000, 12000, 100, 0, 0, 0, 0, 0, 0.015},
                            {"is read at intervals", 48000, 2229, 100, 0, 0, 0, 0, 0, 0.001, 0.05},
                            {"is read too often", 48000, 2400, -100, 0, 0, 0, 0, 0, 0.001, 0.045}};
  for (const Device& device : devices) {
    Take take{device};
    take.run();
    EXPECT_LE(take.worst, 0.010) << device.what;
    EXPECT_LE(take.afterAnHour, 0.002) << device.what;
    EXPECT_LE(take.mostCompensation, 550) << device.what;
    EXPECT_LE(take.mostChanged, 26) << device.what;  // 100 ppm a second
    EXPECT_EQ(take.placing.gaps(Take::end), device.gaps) << device.what;
    EXPECT_NEAR(take.placing.missing(Take::end), device.missing, 0.003 * (1 + device.gaps))
        << device.what;
  }
}

}  // namespace
}  // namespace lumora
