// The sound of takes on fakes: what is heard when, how takes stop, how they fail.

#include "record/take_sound.h"

#include "client/records.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

// Of one channel at 8 kHz.
SoundRecord recordAt(double time, std::int64_t samples = 80) {
  Bytes pcm(static_cast<std::size_t>(samples * 2), 1);
  return {time, samples, std::move(pcm)};
}

struct TakeSoundTest : testing::Test {
  void begin(double origin) {
    const auto open = [this](const SoundSettings& settings, std::unique_ptr<SoundEncoder>& made) {
      fake.settings = settings;
      made = std::make_unique<FakeSoundEncoder>(fake);
      return 0;
    };
    const AacFormat format = sound.begin(open, origin);
    EXPECT_EQ(format.rate, 8000u);
    EXPECT_EQ(format.configuration, (Bytes{0x11, 0x90}));
  }
  void add(double time) { sound.add({recordAt(time)}, time + 0.01, false); }
  // The samples of silence in front of the next others, from sample `at` on.
  std::int64_t silenceAt(std::int64_t at) const {
    const auto from = fake.samples.begin() + at;
    return std::ranges::find_if(from, fake.samples.end(), [](int sample) { return sample != 0; }) -
           from;
  }
  Failures failures;
  FakeSound fake{failures};
  TakeSound sound{{8000, 1}, 64'000};
};

TEST_F(TakeSoundTest, HoldsTenSecondsAndBeginsWithTheMovie) {
  for (int i = 0; i < 1200; ++i) add(100 + i * 0.01);
  begin(101);
  EXPECT_EQ(fake.settings.bitRate, 64'000);
  sound.add({}, 112, false);
  EXPECT_NEAR(static_cast<double>(silenceAt(0)), 8000, 80);  // a record's length
  EXPECT_EQ(std::ssize(fake.samples), 11 * 8000);
  EXPECT_TRUE(sound.hasHeard(111.9999) && !sound.hasHeard(112.0001));
  EXPECT_EQ(sound.gaps(), 0);
  sound.end(112.5);
  EXPECT_EQ(std::ssize(fake.samples), 92'000);
  EXPECT_NEAR(sound.missing(), 1 + 0.5, 0.02);
  EXPECT_TRUE(sound.add({recordAt(112)}, 112, false).empty() && sound.end(113).empty());
}

TEST_F(TakeSoundTest, FillsTwoSecondsBehindADeviceThatSendsNothing) {
  begin(100);
  add(100);
  add(100.01);
  sound.add({}, 102.02, false);
  EXPECT_EQ(std::ssize(fake.samples), 160);
  sound.add({}, 103.02, false);
  sound.add({}, 104.02, false);
  EXPECT_NEAR(static_cast<double>(fake.samples.size()), 16'160, 1);
  // Sound of so old a time is cut.
  add(101);
  EXPECT_NEAR(static_cast<double>(fake.samples.size()), 16'160, 1);
  add(103.02);
  EXPECT_EQ(silenceAt(160), 24'000);
  EXPECT_EQ(sound.gaps(), 1);
  EXPECT_NEAR(sound.missing(), 3, 1e-3);
}

}  // namespace
}  // namespace lumora
