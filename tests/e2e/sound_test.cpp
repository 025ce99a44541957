// Takes with sound of a parent that flashes and beeps at the same instant. ffmpeg judges them.

#include <lumora/helper.h>
#include <lumora/recover.h>

#include <cmath>
#include <csignal>
#include <numbers>

#include "tests/e2e/helper_fixture.h"

namespace lumora::tests {
namespace {

struct Sound : HelperTest {
  static constexpr double step = 0.02;  // seconds

  void SetUp() override {
    HelperTest::SetUp();
    if (sanitized) GTEST_SKIP() << "under a sanitizer frames reach the helper late";
    start({}, {{"TAVO_SOUND", "48000x2"}});
    next = uptime();
  }

  // Pictures and sound, captured up to this uptime: from `flash` on white and loud.
  void perform(double until) {
    const FrameSize size{320, 180};
    for (; next < until; next += step) {
      std::this_thread::sleep_for(std::chrono::duration<double>(next + step - uptime()));
      const bool isWhite = next + step >= flash - 1e-6;
      lastID = microseconds(next + step) - 1;
      feed(size, plain(size, isWhite ? Rgb{255, 255, 255} : Rgb{0, 0, 0}));
      writeSound();
    }
  }
  void writeSound() {
    std::vector<std::int16_t> samples;
    for (int i = 0; i < 960; ++i) {
      const double since = next + i / 48000.0 - flash;
      const double level = since < 0 ? 0 : 20'000 * std::sin(2000 * std::numbers::pi * since);
      samples.insert(samples.end(), 2, static_cast<std::int16_t>(level));
    }
    const auto bytes = static_cast<std::uint32_t>(samples.size() * sizeof(std::int16_t));
    helper->writeBytes(client::recordHeader(bytes, 0, 0, microseconds(next)));
    helper->writeBytes({reinterpret_cast<const std::uint8_t*>(samples.data()), bytes});
  }
  static std::uint64_t microseconds(double time) {
    return static_cast<std::uint64_t>(std::llround(time * 1e6));
  }
  // Of each track of a movie, in seconds.
  static std::pair<double, double> durations(const std::string& file) {
    const Event streams = Event::parse(
        outputOf("ffprobe -v error -show_streams -of json " + tools::shellQuoted(file)))["streams"];
    EXPECT_EQ(streams.at(1).at("codec_name"), "aac");
    const auto duration = [&](int i) {
      return std::stod(streams.at(i).at("duration").get<std::string>());
    };
    return {duration(0), duration(1)};
  }

  double next = 0;     // uptime of the next sample
  double flash = 1e9;  // uptime
};

TEST_F(Sound, IsInStepWithThePicture) {
  const double from = next + 0.1;
  flash = next + 50 * step;
  perform(from + 0.05);
  startTake({{"started_at", from}, {"sound", true}});
  perform(flash + 0.5);
  const Event saved = saveTake({{"stopped_at", flash + 0.4}});
  EXPECT_EQ(saved["sound_gaps"], 0);
  EXPECT_NEAR(saved["sound_missing"].get<double>(), 0, 0.001);
  for (const char* filter : {"-vf blackdetect=d=0.1", "-af silencedetect=n=-20dB:d=0.1"}) {
    const std::string end =
        outputOf("ffmpeg -nostdin -i " + tools::shellQuoted(path) + " " + filter +
                 " -f null - 2>&1 | sed -n 's/.*_end: *\\([0-9.]*\\).*/\\1/p'");
    EXPECT_NEAR(std::stod(end), flash - from, 0.01) << filter;
  }
  const auto [picture, sound] = durations(path);
  EXPECT_NEAR(picture, flash + 0.4 - from, 1e-4);
  EXPECT_NEAR(sound, picture, 1e-3);
}

TEST_F(Sound, ComesFromTheClientLibraryInPiecesOfAnyLength) {
  const client::SoundFormat mono{.rate = 16000, .channels = 1};
  client::Helper camera({.program = helperProgram(), .sound = mono});
  const client::Take take =
      camera.startTake({.path = path,
                        .profile = {client::TakeSize::of640x360, client::TakeRate::fps15},
                        .sound = true,
                        .soundBitRate = 64'000});
  const FrameSize size{320, 180};
  const Pixels pixels = plain(size, {9, 9, 9});
  for (int i = 0; i < 4; ++i) {
    const auto begin = client::Uptime::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    camera.writeFrame(size, client::frameID(client::Uptime::now()), pixels);
    EXPECT_TRUE(camera.writeSound(std::vector<std::int16_t>(6400, 1000), begin));
  }
  client::Take(take).stop();
  const client::Recording saved = take.waitForEnd(client::Seconds(20)).value();
  ASSERT_EQ(saved.state, client::TakeState::saved) << saved.error;
  EXPECT_LT(saved.soundMissing.value().count(), 0.2);
  EXPECT_TRUE(saved.soundGaps.has_value());
  const auto [picture, sound] = durations(path);
  EXPECT_NEAR(sound, picture, 0.01);
  client::Helper silent({.program = helperProgram()});
  EXPECT_THROW(silent.writeSound({}, client::Uptime::now()), std::invalid_argument);
  for (const client::SoundFormat wrong : {client::SoundFormat{7999, 1}, {96001, 2}, {48000, 3}})
    EXPECT_THROW(const client::Helper unwanted({.sound = wrong}), std::invalid_argument);
}

TEST_F(Sound, SurvivesAKillBesideThePicture) {
  startTake({{"sound", true}});
  perform(next + 2);
  helper->sendSignal(SIGKILL);
  exitCode();
  const auto now = std::filesystem::file_time_type::clock::now();
  std::filesystem::last_write_time(stagingPath(), now - std::chrono::minutes(2));
  const auto take = client::recoverTakes(folder, helperProgram()).at(0);
  EXPECT_EQ(decodeErrors(take.path), "");
  const auto [picture, sound] = durations(take.path);
  EXPECT_GT(picture, 1);
  EXPECT_GT(sound, picture - 0.25);
}

}  // namespace
}  // namespace lumora::tests
